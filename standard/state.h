// The library's state between C_Initialize and C_Finalize, and the lock that orders its calls to the module.
//
// Locks are taken in this order, and none is held while the application waits for a slot event:
// session, module lock, the mutex of one table. Tables are locked for their own work only.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include "objects/handle_ranges.h"
#include "standard/module_library.h"
#include "standard/objects.h"
#include "standard/pin_store.h"
#include "standard/sessions.h"
#include "standard/tokens.h"

namespace tavrin::standard {

struct State {
  ModuleLibrary module;  // declared first, so that it is unloaded last

  std::mutex mutex;                   // the module lock; see ModuleLock
  std::mutex turnstile;               // held by the thread that gets the module lock next
  unsigned overtakings = 0;           // how often the free module lock was taken out of turn; guarded by it
  std::condition_variable idle;       // signalled under the module lock when no key is being generated
  unsigned generating = 0;            // number of keys being generated outside the lock with the current login
  Token* loggedIn = nullptr;          // whose PIN the module has; null when it has none
  std::atomic<bool> ending = false;   // the module is finalised, or about to be
  std::atomic<unsigned> waiters = 0;  // threads that wait for a slot event in the module

  // For the results of the module's searches: as many objects as its handles can name.
  std::vector<CK_OBJECT_HANDLE> foundInModule = std::vector<CK_OBJECT_HANDLE>(derivedSecretBase - privateKeyBase);

  TokenTable tokens;
  ObjectTable objects;
  SessionTable sessions;
};

// The current state. Only C_Initialize and C_Finalize change it.
struct Lifecycle {
  std::mutex changing;    // held by C_Initialize and C_Finalize
  std::mutex stateMutex;  // guards `state`; held for nothing else
  std::shared_ptr<State> state;
  void* pin = nullptr;  // keeps this library loaded while there is a state
};
extern Lifecycle& lifecycle;

// The state, or null while the library is not initialised. The pointer keeps it alive until the call returns.
std::shared_ptr<State> currentState();

extern PinStore& pins;  // used under the module lock

// The module, locked for calls that belong together, so that no other thread's search, attributes or key comes between
// them. Not recursive. Calls that use neither keys nor objects nor slots may be made without it.
class ModuleLock {
 public:
  explicit ModuleLock(State& state) : state_(state), lock_(state.mutex, std::try_to_lock) {
    // A thread that locks again before the next in turn has woken up overtakes it. That saves the time of waking up,
    // but happens a few times only, or one thread could keep the others waiting for long.
    if (lock_ && ++state.overtakings % 16 != 0) return;
    if (lock_) lock_.unlock();
    const std::lock_guard turn(state.turnstile);
    lock_.lock();
  }

  const ModuleLibrary& operator->() const { return state_.module; }
  State& state() { return state_; }
  std::unique_lock<std::mutex>& lock() { return lock_; }

 private:
  State& state_;
  std::unique_lock<std::mutex> lock_;
};

}  // namespace tavrin::standard
