#include "sessions/user_password.h"

#include <algorithm>

#include "platform/platform.h"

namespace tavrin {

Pin::Pin(const CK_UTF8CHAR* bytes, CK_ULONG length)
    : length_(static_cast<std::size_t>(std::min<CK_ULONG>(length, maximumPinLength))) {
  std::copy_n(bytes, length_, text_.begin());
}

void Pin::wipe() {
  platform::wipe(text_.data(), text_.size());
  length_ = 0;
}

bool operator==(const Pin& left, const Pin& right) {
  // The unused bytes are zero. Comparing all bytes takes the same time for every PIN.
  bool same = left.length_ == right.length_;
  for (std::size_t i = 0; i < left.text_.size(); ++i) same &= left.text_[i] == right.text_[i];
  return same;
}

bool UserPassword::isEmpty() const {
  const std::lock_guard lock(mutex_);
  return pin_.isEmpty();
}

bool UserPassword::equals(const Pin& pin) const {
  const std::lock_guard lock(mutex_);
  return pin_ == pin;
}

Pin UserPassword::copy() const {
  const std::lock_guard lock(mutex_);
  return pin_;
}

void UserPassword::set(const Pin& pin) {
  const std::lock_guard lock(mutex_);
  pin_ = pin;
}

void UserPassword::replace(const Pin& pin) {
  const std::lock_guard lock(mutex_);
  if (!pin_.isEmpty()) pin_ = pin;
}

void UserPassword::clear() {
  const std::lock_guard lock(mutex_);
  pin_.wipe();
}

}  // namespace tavrin
