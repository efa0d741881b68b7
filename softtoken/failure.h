// Failures: functions throw a Failure, and the device library's operations return its status.
#pragma once

#include <stdexcept>
#include <string>

#include "devlib/device_constants.h"

namespace softtoken {

// The codes that the operations return. `full` and `deviceFault` have the meaning of the device library's interface;
// the others are the software token's own.
enum class Status : int {
  ok = 0,
  wrongPassword = 20,
  passwordLocked = 21,  // no tries left; the security officer can unlock the user's password
  badArgument = 22,     // null, negative, too long, or not what the operation takes
  notFound = 23,        // no such key pair, certificate or hash context
  wrongKeyType = 24,    // the key cannot do this
  badSignature = 30,
  badCiphertext = 31,  // decrypted, but without a valid padding
  outOfMemory = 32,
  full = tavrin::statusTokenFull,
  deviceFault = tavrin::statusDeviceFault,
};

// The text is for people and contains no secret.
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
