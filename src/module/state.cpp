// All state of the module, each variable with its owner and the threads that use it.
//
// None of it is ever destroyed: at the end of the process, or when the library is unloaded, threads of the
// application or the monitor may still be using it, and its locks may be held by threads that have ended. All memory is
// freed by C_Finalize; only derived secrets outlive it, and they are wiped when the module is unloaded.
#include <new>

#include "devlib/library_instance.h"
#include "log/log.h"
#include "objects/derived_secrets.h"
#include "objects/object_handles.h"
#include "platform/platform.h"
#include "sessions/session_table.h"
#include "sessions/user_password.h"
#include "slots/device_monitor.h"
#include "slots/slot_table.h"

namespace tavrin {
namespace {

struct ModuleState {
  // Set and cleared by C_Initialize and C_Finalize, read by every call and by the monitor.
  std::atomic<void*> libraryInstance = nullptr;
  // Rebuilt by C_GetSlotList, emptied by C_Finalize, read by the calls that name a slot; any application thread.
  SlotTable slotTable;
  // Changed by the session and login calls of any application thread, walked by the monitor.
  SessionTable sessionTable;
  // Set by a login or a PIN change, emptied by logout, C_Finalize and the monitor, read by the calls that need the
  // token.
  UserPassword userPassword;
  // Grown by C_DeriveKey, read by C_GetAttributeValue; any application thread. Outlives C_Finalize.
  DerivedSecretTable derivedSecretTable;
  // Overwritten by every resolution of an object handle; application threads, which must not resolve at the same time.
  ResolutionBuffers resolutionBuffers{};
  // Owned by C_Initialize and C_Finalize; shared by the monitor and the callers of C_WaitForSlotEvent.
  DeviceMonitor deviceMonitor;
};

alignas(ModuleState) std::byte stateStorage[sizeof(ModuleState)];
ModuleState& state = *::new (stateStorage) ModuleState;

// The instance that a forked child inherits belongs to the parent. The child neither uses nor releases it; the pointer
// is kept so that leak checkers find it.
void* inheritedInstance = nullptr;

void lockAll() {
  static_cast<void>(getProcessName());  // not read for the first time during a fork: the child would wait for its end
  state.slotTable.mutex().lock();
  state.sessionTable.mutex().lock();
  state.userPassword.mutex().lock();
  state.derivedSecretTable.mutex().lock();
  state.deviceMonitor.eventMutex.lock();
}

void unlockAll() {
  state.deviceMonitor.eventMutex.unlock();
  state.derivedSecretTable.mutex().unlock();
  state.userPassword.mutex().unlock();
  state.sessionTable.mutex().unlock();
  state.slotTable.mutex().unlock();
}

// Gives the child of a fork a module that is not initialised and has no session. The slots are kept, because some
// libraries use a slot ID from before the fork and do not fetch the list again after C_Initialize. The monitor thread
// exists in the parent only.
void startAfresh() {
  unlockAll();
  if (state.libraryInstance != nullptr) inheritedInstance = state.libraryInstance.exchange(nullptr);
  state.sessionTable.clear();
  state.userPassword.clear();
  state.derivedSecretTable.clear();
  ::new (&state.deviceMonitor) DeviceMonitor;
}

struct LoadAndUnload {
  LoadAndUnload() { platform::aroundFork(lockAll, unlockAll, startAfresh); }
  ~LoadAndUnload() { state.derivedSecretTable.clearUnlessBusy(); }
  LoadAndUnload(const LoadAndUnload&) = delete;
  LoadAndUnload& operator=(const LoadAndUnload&) = delete;
} loadAndUnload;

}  // namespace

std::atomic<void*>& libraryInstance = state.libraryInstance;
SlotTable& slotTable = state.slotTable;
SessionTable& sessionTable = state.sessionTable;
UserPassword& userPassword = state.userPassword;
DerivedSecretTable& derivedSecretTable = state.derivedSecretTable;
ResolutionBuffers& resolutionBuffers = state.resolutionBuffers;
DeviceMonitor& deviceMonitor = state.deviceMonitor;

}  // namespace tavrin
