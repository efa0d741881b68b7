// The thread that watches the connected devices, and the slot events that it raises.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "pkcs11.h"
#include "platform/condition.h"

namespace tavrin {

// How often the devices are listed, in milliseconds, and the longest sleep in between: a stop waits no longer.
inline constexpr unsigned pollPeriod = 1000;
inline constexpr unsigned sleepSlice = 50;

struct DeviceMonitor {
  std::thread monitorThread;            // touched by C_Initialize and C_Finalize only; empty when no monitor runs
  void* pin = nullptr;                  // keeps the module loaded from before the thread starts until it is joined
  std::atomic<bool> monitorRunning{};   // from the start of the thread until its loop ends
  std::atomic<bool> stopRequested{};    // ends the loop and releases blocked waiters
  std::atomic<bool> eventPending{};     // several changes between two collections are one event
  std::atomic<CK_SLOT_ID> eventSlot{};  // the slot of the pending event
  std::atomic<std::uint64_t> stops{};   // number of stops; a waiter notices a stop even if a start followed
  platform::Mutex eventMutex;           // guards the wait below; never held together with another lock
  platform::Condition eventCondition;   // blocked C_WaitForSlotEvent callers sleep on it
};

extern DeviceMonitor& deviceMonitor;

// Starts the thread. `libraryInstance` must not change while it runs. Throws std::system_error, with nothing started,
// when there can be no thread. No monitor may be running. Starts nothing while the process ends.
void startDeviceMonitor();

// Wakes every waiter of C_WaitForSlotEvent, ends the thread and waits for it: for the library's current listing of
// devices and at most one slice of sleep.
void stopDeviceMonitor();

}  // namespace tavrin
