// The library's state, and what loading, unloading and forking do with it.
//
// No object of it is destroyed at the end of the process, where other threads may still use it. While it is initialised
// the library keeps itself loaded. When it is unloaded, the numbers of the slots are all that is left to free.
#include "standard/state.h"

#include <new>

#include "log/log.h"
#include "platform/platform.h"

namespace tavrin::standard {
namespace {

struct Globals {
  PinStore pins;  // first, as it fills whole pages
  Lifecycle lifecycle;
  SlotNumbers slotNumbers;
  // States of the parents of a forked process: neither used nor released in the child.
  std::vector<std::shared_ptr<State>> inherited;
};

alignas(Globals) std::byte storage[sizeof(Globals)];
Globals& globals = *::new (storage) Globals;

void lockTables() {
  static_cast<void>(getProcessName());  // not read for the first time during a fork: the child would wait for its end
  globals.lifecycle.stateMutex.lock();
  globals.slotNumbers.mutex().lock();
}

void unlockTables() {
  globals.slotNumbers.mutex().unlock();
  globals.lifecycle.stateMutex.unlock();
}

// Gives the child of a fork a library that was never initialised, except that slots keep their numbers. Other locks of
// the parent may be held by threads that the child does not have; nothing uses them any more.
void startAfresh() {
  unlockTables();
  std::shared_ptr<State> parents = std::move(globals.lifecycle.state);
  ::new (&globals.lifecycle) Lifecycle;
  globals.pins.dropAll();
  ::new (&globals.pins) PinStore;  // a child does not inherit that the page is locked
  if (parents) globals.inherited.push_back(std::move(parents));
}

struct LoadAndUnload {
  LoadAndUnload() { platform::aroundFork(lockTables, unlockTables, startAfresh); }
  ~LoadAndUnload() {
    const std::unique_lock idle(globals.lifecycle.changing, std::try_to_lock);
    if (idle && !globals.lifecycle.state) globals.slotNumbers.clear();
  }
  LoadAndUnload(const LoadAndUnload&) = delete;
  LoadAndUnload& operator=(const LoadAndUnload&) = delete;
} loadAndUnload;

}  // namespace

Lifecycle& lifecycle = globals.lifecycle;
SlotNumbers& slotNumbers = globals.slotNumbers;
PinStore& pins = globals.pins;

std::shared_ptr<State> currentState() {
  const std::lock_guard guard(lifecycle.stateMutex);
  return lifecycle.state;
}

}  // namespace tavrin::standard
