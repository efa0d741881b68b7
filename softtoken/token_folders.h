// The token folders below tokenRoot(), by name: making, listing, plugging and removing tokens. Functions throw Failure
// with the status deviceFault or full when a folder cannot be read or written, and with what is said below.
#pragma once

#include "softtoken/token.h"

namespace softtoken {

// The folders of tokens directly below `root`, in byte-wise order of their names, whether they hold complete tokens or
// not. Empty when there is no such folder.
std::vector<std::filesystem::path> tokenFolders(const std::filesystem::path& root);

struct NewToken {
  std::string name;                // of its folder, 1 to 64 bytes that the file systems of Windows and Linux allow
  std::string label;               // UTF-8, 1 to 64 bytes without control characters
  std::string firmware = "3.0.0";  // digits and points, at most 31 bytes
  std::uint32_t capacity = 100;    // 1 to 4095 objects
};

// Throws badArgument, with the reason, for what no token can have.
void requireValid(const NewToken& token);

// Makes a connected token and syncs it to the disk. Throws badArgument also when the name is taken or a password breaks
// the rule. On failure no part of the token remains.
void createToken(const NewToken& token, std::string_view userPassword, std::string_view officerPassword);

struct TokenSummary {
  std::string name;
  bool plugged = false;
  std::shared_ptr<const TokenState> state;  // null for a token that cannot be read
  Tries tries;                              // meaningless then
  std::string problem;                      // why it cannot be read; else empty
};

// Connected and unplugged tokens by name, with those that cannot be read. Throws deviceFault when the folder of all
// tokens exists and cannot be listed.
std::vector<TokenSummary> allTokens();

// The folder of a token, connected or not. Throws notFound when there is no such folder, and badArgument for what
// cannot be a token's name.
std::filesystem::path folderOfToken(const std::string& name);
// Both throw badArgument for what cannot be a token's name; isPlugged throws notFound when there is no such token.
bool tokenExists(const std::string& name);
bool isPlugged(const std::string& name);

// Connect and disconnect a token. A disconnected token keeps all its content. Both throw badArgument when the token is
// in that state already, and what folderOfToken throws.
void plugToken(const std::string& name);
void unplugToken(const std::string& name);

// Makes a token anew: without objects, with a new serial number, new passwords and all tries. Label, firmware version,
// capacity and connection stay. Throws badArgument when a password breaks the rule. On failure the old token stays.
// A process that is killed may leave the new token with the tries of the old one.
void resetToken(const std::string& name, std::string_view userPassword, std::string_view officerPassword);

// Deletes a token with all its keys.
void removeToken(const std::string& name);

}  // namespace softtoken
