#include "slots/slot_table.h"

#include <iterator>

namespace tavrin {

SlotTable::Entry SlotTable::find(CK_SLOT_ID slotID) const {
  if (slotID < firstSlotId) return nullptr;
  const auto position = slotID - firstSlotId;
  const std::lock_guard lock(mutex_);
  if (position >= entries_.size()) return nullptr;
  return std::next(entries_.begin(), static_cast<std::ptrdiff_t>(position))->second;
}

void SlotTable::replace(Entries entries) {
  const std::lock_guard lock(mutex_);
  entries_.swap(entries);
}

}  // namespace tavrin
