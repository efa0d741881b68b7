// The connected tokens, as devices by their serial numbers.
#pragma once

#include <map>

#include "softtoken/token.h"

namespace softtoken {

struct FoundToken {
  std::shared_ptr<Token> token;
  std::shared_ptr<const TokenState> state;
};

// Any number of threads may use it.
class TokenDirectory {
 public:
  // The serial numbers of the connected tokens in ascending order, read from the file system now. Folders without a
  // complete token are skipped; of several copies of one token only the first by name is listed.
  std::vector<std::string> serials();

  // The connected token with this serial number. Throws deviceFault when there is none.
  FoundToken find(std::string_view serial);

  // Wipes the master keys that right passwords have left.
  void forgetPasswords();

 private:
  std::shared_ptr<Token> known(std::string_view serial);
  void refreshInLock();  // needs mutex_

  std::mutex mutex_;  // taken before a token's own
  std::map<std::filesystem::path, std::shared_ptr<Token>> byFolder_;
  std::map<std::string, std::shared_ptr<Token>, std::less<>> bySerial_;
};

}  // namespace softtoken
