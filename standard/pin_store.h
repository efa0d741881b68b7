// The PINs of logged-in users, for as long as they are logged in. They are stored in one page that is kept out of the
// swap space; a PIN is wiped when it is dropped.
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

  // False for a slot above 64, and for a longer PIN than tokens accept.
  bool keep(CK_SLOT_ID slot, std::span<const CK_UTF8CHAR> pin);
  std::span<CK_UTF8CHAR> of(CK_SLOT_ID slot);
  void drop(CK_SLOT_ID slot);
  void dropAll();

 private:
  struct Entry {
    std::array<CK_UTF8CHAR, maximumPinLength> text;
    CK_BYTE length;
  };
  // Null for a slot that has no entry.
  Entry* entryOf(CK_SLOT_ID slot) { return slot >= 1 && slot <= entries_.size() ? &entries_[slot - 1] : nullptr; }

  alignas(4096) std::array<Entry, 64> entries_;  // of the slots 1 to 64
};

}  // namespace tavrin::standard
