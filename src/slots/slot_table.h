// The slots: one for each device that was connected when an application last fetched the slot list.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "devlib/device_library.h"
#include "pkcs11.h"

namespace tavrin {

inline constexpr CK_SLOT_ID firstSlotId = 0x50000001;

// Any thread may use it. The lock is held only while the table is read or changed.
class SlotTable {
 public:
  using Entry = std::shared_ptr<const TokenInfo>;
  using Entries = std::map<std::string, Entry>;  // by device name, in byte order

  // The entry that the slot ID names, counted in name order; null for an ID outside the table.
  Entry find(CK_SLOT_ID slotID) const;

  void replace(Entries entries);
  void clear() { replace({}); }

  std::mutex& mutex() { return mutex_; }

 private:
  mutable std::mutex mutex_;
  Entries entries_;
};

extern SlotTable& slotTable;

}  // namespace tavrin
