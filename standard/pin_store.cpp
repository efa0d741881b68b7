#include "standard/pin_store.h"

#include <algorithm>

#include "platform/platform.h"
#include "standard/system.h"

namespace tavrin::standard {

PinStore::PinStore() : entries_{} { lockInMemory(entries_.data(), sizeof entries_); }

bool PinStore::keep(CK_SLOT_ID slot, std::span<const CK_UTF8CHAR> pin) {
  drop(slot);
  if (slot >= entries_.size() || pin.size() > maximumPinLength) return false;
  std::ranges::copy(pin, entries_[slot].text.begin());
  entries_[slot].length = static_cast<CK_BYTE>(pin.size());
  return true;
}

std::span<CK_UTF8CHAR> PinStore::of(CK_SLOT_ID slot) {
  if (slot >= entries_.size()) return {};
  return std::span<CK_UTF8CHAR>(entries_[slot].text).first(entries_[slot].length);
}

void PinStore::drop(CK_SLOT_ID slot) {
  if (slot < entries_.size()) platform::wipe(&entries_[slot], sizeof(Entry));
}

void PinStore::dropAll() { platform::wipe(entries_.data(), sizeof entries_); }

}  // namespace tavrin::standard
