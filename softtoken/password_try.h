// One attempt to open a token with a password.
#pragma once

#include "softtoken/token_state.h"

namespace softtoken {

// A try is stored as spent before the password is checked, so that killing the process does not avoid the count. If the
// password was not wrong, the try is restored. The tries before the attempt are kept in a file <tries>.before until the
// outcome is known: renaming that file gives the try back even when the disk is full.
//
// Use one at a time per token, with the token's file lock held.
class PasswordTry {
 public:
  // Spends a try of the role, which must have one. Throws Failure, and spends none, if that cannot be written.
  PasswordTry(const std::filesystem::path& triesFile, const Tries& before, Role role);
  // Restores the try if neither function below was called or refill() failed. Ignores errors.
  ~PasswordTry();
  PasswordTry(const PasswordTry&) = delete;
  PasswordTry& operator=(const PasswordTry&) = delete;

  // The password was wrong: the try stays spent.
  void keepSpent();
  // The password was right: the role has all tries again. Throws Failure if that cannot be written.
  void refill();

  // The tries that the role has left while the try is spent.
  std::uint32_t left() const { return left_; }

 private:
  PasswordTry(const std::filesystem::path& triesFile, const Tries& before, Role role, std::uint32_t left);
  // Nothing is given back any more.
  void finish();

  const std::filesystem::path triesFile_;
  const std::filesystem::path beforeFile_;
  const Tries before_;
  const Role role_;
  const std::uint32_t left_;
  bool canGiveBack_ = false;
};

}  // namespace softtoken
