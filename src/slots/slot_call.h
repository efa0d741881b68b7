// The frame of the calls that name a slot.
#pragma once

#include "devlib/library_instance.h"
#include "slots/slot_table.h"

namespace tavrin {

// An initialised call on an existing slot: runs `body(call, token)` with the slot's token record.
template <typename Body>
CK_RV slotCall(const char* name, CK_SLOT_ID slotID, Body&& body) noexcept {
  return initializedCall(name, [&](const Call& call) -> CK_RV {
    const auto token = slotTable.find(slotID);
    if (!token) return call.refuse(CKR_SLOT_ID_INVALID, "invalid slotID=", slotID);
    return body(call, *token);
  });
}

}  // namespace tavrin
