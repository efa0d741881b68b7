// The PINs of logged-in users, for as long as they are logged in. They lie in one page that is kept out of the swap
// space; a PIN is wiped when it is dropped.
#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "devlib/device_constants.h"
#include "standard/cryptoki.h"

namespace tavrin::standard {

// Not synchronised: used under the module lock.
class PinStore {
 public:
  PinStore();

  // False when there is no room: PINs are kept for the first 64 slots.
  bool keep(CK_SLOT_ID slot, std::span<const CK_UTF8CHAR> pin);
  std::span<CK_UTF8CHAR> of(CK_SLOT_ID slot);
  void drop(CK_SLOT_ID slot);
  void dropAll();

 private:
  struct Entry {
    std::array<CK_UTF8CHAR, maximumPinLength> text;
    CK_BYTE length;
  };
  alignas(4096) std::array<Entry, 64> entries_;
};

}  // namespace tavrin::standard
