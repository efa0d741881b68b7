#include "slots/slot_table.h"

#include <iterator>

std::optional<TokenInfo> SlotTable::find(CK_SLOT_ID slotID) const {
  if (slotID < firstSlotId) return std::nullopt;
  const auto position = slotID - firstSlotId;
  const std::lock_guard lock(mutex_);
  if (position >= entries_.size()) return std::nullopt;
  return std::next(entries_.begin(), static_cast<std::ptrdiff_t>(position))->second;
}

void SlotTable::replace(Entries entries) {
  const std::lock_guard lock(mutex_);
  entries_.swap(entries);
}
