#include "softtoken/password_try.h"

#include "softtoken/stored_file.h"

namespace softtoken {

namespace fs = std::filesystem;

PasswordTry::PasswordTry(const fs::path& triesFile, const Tries& before, Role role, std::uint32_t left)
    : triesFile_(triesFile), beforeFile_(withSuffix(triesFile, ".before")), before_(before), role_(role), left_(left) {}

// The other constructor has finished when this one runs, so that the destructor runs even if this one throws.
PasswordTry::PasswordTry(const fs::path& triesFile, const Tries& before, Role role)
    : PasswordTry(triesFile, before, role, before.of(role) - 1) {
  writeFile(beforeFile_, encodeTries(before));
  canGiveBack_ = true;
  Tries spent = before;
  spent.of(role) = left_;
  replaceFile(triesFile_, encodeTries(spent));
}

PasswordTry::~PasswordTry() {
  if (!canGiveBack_) return;
  try {
    putInPlace(beforeFile_, triesFile_);
  } catch (...) {
    return;
  }
}

void PasswordTry::keepSpent() { finish(); }

void PasswordTry::finish() {
  canGiveBack_ = false;
  std::error_code ignored;
  fs::remove(beforeFile_, ignored);
}

void PasswordTry::refill() {
  if (before_.of(role_) == maxTries) {
    putInPlace(beforeFile_, triesFile_);
  } else {
    Tries refilled = before_;
    refilled.of(role_) = maxTries;
    replaceFile(triesFile_, encodeTries(refilled));
  }
  finish();
}

}  // namespace softtoken
