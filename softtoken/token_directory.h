// The tokens of this machine's user: the connected ones as devices by their serials, and all of them by their names.
#pragma once

#include <map>

#include "softtoken/token.h"

namespace softtoken {

struct FoundToken {
  std::shared_ptr<Token> token;
  std::shared_ptr<const TokenState> state;
};

// Connected tokens. Safe for any number of threads.
class TokenDirectory {
 public:
  // The serials of the connected tokens in ascending order, looked up in the file system now. Folders that hold no
  // whole token are passed over; of copies of one token the first by name counts.
  std::vector<std::string> serials();

  // The connected token with this serial. Throws deviceFault when there is none.
  FoundToken find(std::string_view serial);

  // Wipes what right passwords have left behind.
  void forgetPasswords();

 private:
  std::shared_ptr<Token> known(std::string_view serial);
  void lookAgainInLock();

  std::mutex mutex_;  // taken before a token's own
  std::map<std::filesystem::path, std::shared_ptr<Token>> byFolder_;
  std::map<std::string, std::shared_ptr<Token>, std::less<>> bySerial_;
};

struct NewToken {
  std::string name;  // of its folder
  std::string label;
  std::string firmware = "3.0.0";
  std::uint32_t capacity = 100;
};

// Throws badArgument, with the reason, for what no token can have.
void requireGood(const NewToken& token);

// Makes a connected token, whole or not at all.
void createToken(const NewToken& token, std::string_view userPassword, std::string_view officerPassword);

struct TokenSummary {
  std::string name;
  bool plugged;
  std::shared_ptr<const TokenState> state;  // null when it cannot be read
  Tries tries;
  std::string problem;  // why it cannot be read
};

// Connected and unplugged tokens by name, unreadable ones too. Throws deviceFault when the folder of all tokens exists
// and cannot be listed.
std::vector<TokenSummary> allTokens();

// The folder of a token, connected or not; throws notFound when there is no such folder. Throws badArgument for what
// cannot be a token's name.
std::filesystem::path folderOfToken(const std::string& name);
bool tokenExists(const std::string& name);
bool isPlugged(const std::string& name);

// An unplugged token keeps everything but its place among the devices. Both throw badArgument when there is nothing to
// do.
void plugToken(const std::string& name);
void unplugToken(const std::string& name);

// With all its keys.
void removeToken(const std::string& name);

}  // namespace softtoken
