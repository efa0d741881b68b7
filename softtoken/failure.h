// How the software token reports failure: inside by a thrown Failure, at its border by the status that it carries.
#pragma once

#include <stdexcept>
#include <string>

namespace softtoken {

// The codes that the operations return. 40 and 48 are known to applications of the device library by their numbers.
enum class Status : int {
  ok = 0,
  wrongPassword = 20,   // one try less
  passwordLocked = 21,  // no tries left; the security officer can unlock the user's password
  badArgument = 22,     // null, negative, too long, or not what the operation takes
  notFound = 23,        // no such key pair, certificate or hash context
  wrongKeyType = 24,    // the key cannot do this
  badSignature = 30,
  badCiphertext = 31,  // decrypted, but neither padding fits
  outOfMemory = 32,
  full = 40,
  deviceFault = 48,  // the token is gone or damaged, or its storage failed
};

// The text is for people; it names no secret.
class Failure : public std::runtime_error {
 public:
  Failure(Status status, const std::string& text) : std::runtime_error(text), status_(status) {}
  Status status() const { return status_; }

 private:
  Status status_;
};

inline void require(bool condition, const char* text) {
  if (!condition) throw Failure(Status::badArgument, text);
}

}  // namespace softtoken
