// Reads passwords from a file, from the environment or from the terminal; never from the command line.
#pragma once

#include <string>
#include <string_view>

#include "softtoken/bytes.h"

namespace tool {

struct PasswordSource {
  const char* name;      // for questions and messages, such as "user password"
  std::string file;      // its first line: UTF-8, or UTF-16 with a byte order mark; empty: not given
  const char* variable;  // the environment variable that is read next
};

// Reads an existing password. Throws Failure when there is no source, or the password is empty.
softtoken::SecretBytes readPassword(const PasswordSource& source);

// Reads a new password of 4 to 63 bytes. On the terminal it is asked for twice, and again when the entries differ.
softtoken::SecretBytes readNewPassword(const PasswordSource& source);

inline std::string_view textIn(const softtoken::SecretBytes& password) {
  return {reinterpret_cast<const char*>(password.data()), password.size()};
}

}  // namespace tool
