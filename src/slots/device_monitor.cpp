#include "slots/device_monitor.h"

#include <utility>

#include "devlib/device_library.h"
#include "devlib/library_instance.h"
#include "log/log.h"
#include "log/utils.h"
#include "platform/platform.h"
#include "slots/slot_table.h"
#include "slots/token_sessions.h"

namespace tavrin {
namespace {

void raiseSlotEvent() {
  {
    const std::lock_guard lock(deviceMonitor.eventMutex);
    // Always the first slot, whichever device came or went: applications list the slots again anyway.
    deviceMonitor.eventSlot = firstSlotId;
    deviceMonitor.eventPending = true;
  }
  deviceMonitor.eventCondition.notify_all();
}

// Lists the devices once. Returns their number.
std::size_t inspectDevices(std::size_t lastCount) {
  const auto devices = tavrin_getConnectedDeviceList(false, libraryInstance);
  logOutSessionsWithoutDevice(devices);
  if (devices.size() != lastCount) {
    logDebug("Slot event: device count changed from ", lastCount, " to ", devices.size());
    raiseSlotEvent();
  }
  return devices.size();
}

void sleepUntilNextPoll() {
  for (unsigned slept = 0; slept < pollPeriod && !deviceMonitor.stopRequested; slept += sleepSlice)
    utils.sleep(sleepSlice);
}

// Set when the process ends: no thread is started after that.
std::atomic<bool> processEnds;

void runDeviceMonitor() {
  logDebug("Session monitor thread started.");
  std::size_t lastCount = 0;
  while (!deviceMonitor.stopRequested) {
    try {
      lastCount = inspectDevices(lastCount);
    } catch (...) {
      // A listing that fails says nothing about the devices.
      logError("Session monitor: device listing failed");
    }
    sleepUntilNextPoll();
  }
  logDebug("Session monitor thread stopped.");
  deviceMonitor.monitorRunning = false;
}

// At the end of a process that does not call C_Finalize, the device library's state is destroyed while the thread uses
// it. So the thread is stopped before. The wait is short, since a device may not answer. Waiters of
// C_WaitForSlotEvent are not woken: they would run in a process whose state is being destroyed.
void endMonitorAtExit() {
  processEnds = true;
  deviceMonitor.stopRequested = true;
  for (unsigned waited = 0; deviceMonitor.monitorRunning && waited < 10 * sleepSlice; ++waited) utils.sleep(1);
}

}  // namespace

void startDeviceMonitor() {
  // No std::call_once: a child that is forked in the middle of it would wait for its end.
  static std::atomic<bool> registered = false;
  if (!registered.exchange(true)) platform::atProcessExit(endMonitorAtExit);

  deviceMonitor.stopRequested = false;
  if (processEnds) return;
  deviceMonitor.monitorRunning = true;
  deviceMonitor.pin = platform::pinModule();
  try {
    deviceMonitor.monitorThread = platform::startThread(runDeviceMonitor);
  } catch (...) {
    deviceMonitor.monitorRunning = false;
    platform::releaseModule(std::exchange(deviceMonitor.pin, nullptr));
    throw;
  }
}

void stopDeviceMonitor() {
  {
    // Under the lock, or a waiter between its test and its sleep would miss the notification.
    const std::lock_guard lock(deviceMonitor.eventMutex);
    deviceMonitor.stopRequested = true;
    ++deviceMonitor.stops;
  }
  deviceMonitor.eventCondition.notify_all();
  if (deviceMonitor.monitorThread.joinable() && deviceMonitor.monitorThread.get_id() != std::this_thread::get_id()) {
    deviceMonitor.monitorThread.join();
    logDebug("Monitor thread joined (stopDeviceMonitor).");
    platform::releaseModule(std::exchange(deviceMonitor.pin, nullptr));
  }
  deviceMonitor.monitorRunning = false;
}

}  // namespace tavrin
