#include "slots/slot_table.h"

#include <iterator>

#include "frame/call_frames.h"

namespace tavrin {

SlotTable::Entry SlotTable::find(CK_SLOT_ID slotID) const {
  if (slotID < firstSlotId) return nullptr;
  const auto position = slotID - firstSlotId;
  const std::lock_guard lock(mutex_);
  if (position >= entries_.size()) return nullptr;
  return std::next(entries_.begin(), static_cast<std::ptrdiff_t>(position))->second;
}

std::shared_ptr<const TokenInfo> findSlot(CK_SLOT_ID slotID) { return slotTable.find(slotID); }

void SlotTable::replace(Entries entries) {
  const std::lock_guard lock(mutex_);
  entries_.swap(entries);
}

}  // namespace tavrin
