#include "standard/pin_store.h"

#include <algorithm>

#include "platform/platform.h"
#include "standard/system.h"

namespace tavrin::standard {

PinStore::PinStore() : entries_{} { lockInMemory(entries_.data(), sizeof entries_); }

bool PinStore::keep(CK_SLOT_ID slot, std::span<const CK_UTF8CHAR> pin) {
  drop(slot);
  Entry* const entry = entryOf(slot);
  if (!entry || pin.size() > maximumPinLength) return false;
  std::ranges::copy(pin, entry->text.begin());
  entry->length = static_cast<CK_BYTE>(pin.size());
  return true;
}

std::span<CK_UTF8CHAR> PinStore::of(CK_SLOT_ID slot) {
  if (Entry* const entry = entryOf(slot)) return std::span<CK_UTF8CHAR>(entry->text).first(entry->length);
  return {};
}

void PinStore::drop(CK_SLOT_ID slot) {
  if (Entry* const entry = entryOf(slot)) platform::wipe(entry, sizeof(Entry));
}

void PinStore::dropAll() { platform::wipe(entries_.data(), sizeof entries_); }

}  // namespace tavrin::standard
