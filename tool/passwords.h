// Where passwords come from: a file, the environment, or a question on the terminal; never the command line.
#pragma once

#include <string>
#include <string_view>

#include "softtoken/bytes.h"

namespace tool {

struct PasswordSource {
  const char* name;      // for questions and messages, such as "user password"
  std::string file;      // its first line; empty: not given
  const char* variable;  // the environment variable that is read next
};

// One that exists already. Throws Failure when there is no source, or it gives nothing.
softtoken::SecretBytes readPassword(const PasswordSource& source);

// One that is being set: it must have 4 to 63 bytes, and is asked for twice.
softtoken::SecretBytes readNewPassword(const PasswordSource& source);

inline std::string_view textIn(const softtoken::SecretBytes& password) {
  return {reinterpret_cast<const char*>(password.data()), password.size()};
}

}  // namespace tool
