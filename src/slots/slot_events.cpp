// C_WaitForSlotEvent.
#include "frame/call_frames.h"
#include "slots/device_monitor.h"

namespace tavrin {
namespace {

CK_RV takePendingEvent(const Call& call, CK_SLOT_ID_PTR pSlot) {
  if (!deviceMonitor.eventPending.exchange(false)) {
    return call.refuse(CKR_NO_EVENT, "no event pending (non-blocking)");
  }
  *pSlot = deviceMonitor.eventSlot;
  logDebug("C_WaitForSlotEvent: non-blocking, returning slot ", *pSlot);
  return CKR_OK;
}

// Sleeps until an event or a stop; true for an event, which is then collected. A stop has priority over a pending
// event. Another thread's non-blocking call may collect the same event at this moment: then both have seen it.
bool waitForEvent(std::uint64_t stopsBefore) {
  DeviceMonitor& monitor = deviceMonitor;
  std::unique_lock lock(monitor.eventMutex);
  const auto stopped = [&] { return monitor.stopRequested || monitor.stops != stopsBefore; };
  monitor.eventCondition.wait(lock, [&] { return monitor.eventPending || stopped(); });
  if (stopped()) return false;
  monitor.eventPending = false;
  return true;
}

CK_RV awaitEvent(const Call& call, CK_SLOT_ID_PTR pSlot, std::uint64_t stopsBefore) {
  if (!waitForEvent(stopsBefore)) {
    return call.refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "monitor stopped, returning CKR_CRYPTOKI_NOT_INITIALIZED");
  }
  *pSlot = deviceMonitor.eventSlot;
  logDebug("C_WaitForSlotEvent: blocking, returning slot ", *pSlot);
  return CKR_OK;
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR) {
  // Before the initialised check, so that a stop and a new start between the check and the wait are not missed.
  const std::uint64_t stopsBefore = deviceMonitor.stops;
  return initializedCall("C_WaitForSlotEvent", [&](const Call& call) -> CK_RV {
    if (!pSlot) return call.refuse(CKR_ARGUMENTS_BAD, "pSlot is NULL");
    return (flags & CKF_DONT_BLOCK) != 0 ? takePendingEvent(call, pSlot) : awaitEvent(call, pSlot, stopsBefore);
  });
}
