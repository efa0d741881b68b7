// PINs in memory, and the one password that the module keeps while a user is logged in.
#pragma once

#include <array>
#include <mutex>

#include "devlib/device_constants.h"
#include "pkcs11.h"

namespace tavrin {

// One PIN in a buffer of its own, which is wiped by the destructor.
class Pin {
 public:
  Pin() = default;
  // Takes at most maximumPinLength bytes; the rest is ignored.
  Pin(const CK_UTF8CHAR* bytes, CK_ULONG length);
  Pin(const Pin&) = default;
  Pin& operator=(const Pin&) = default;
  ~Pin() { wipe(); }

  bool isEmpty() const { return length_ == 0; }
  const char* text() const { return text_.data(); }  // ends in NUL
  void wipe();

  friend bool operator==(const Pin& left, const Pin& right);

 private:
  std::array<char, maximumPinLength + 1> text_{};
  std::size_t length_ = 0;
};

// The password of the last successful user login, for the whole module: empty means that no user is logged in. Safe
// from any thread.
class UserPassword {
 public:
  bool isEmpty() const;
  bool equals(const Pin& pin) const;
  // A copy to pass to the device library. Its destructor wipes it.
  Pin copy() const;

  void set(const Pin& pin);
  // Sets the password if there is one, and does nothing otherwise.
  void replace(const Pin& pin);
  void clear();

  std::mutex& mutex() { return mutex_; }

 private:
  mutable std::mutex mutex_;
  Pin pin_;
};

extern UserPassword& userPassword;

}  // namespace tavrin
