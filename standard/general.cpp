// C_Initialize, C_Finalize, C_GetInfo, C_GetFunctionList, and the function list itself.
#include <chrono>

#include "platform/platform.h"
#include "standard/call_frames.h"
#include "standard/texts.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

#define ENTRY(name, parameters) .name = (name),
const CK_FUNCTION_LIST functionList = {.version = {standardVersionMajor, standardVersionMinor},
                                       CRYPTOKI_FUNCTIONS(ENTRY)};
#undef ENTRY

// The library uses the system's locks, and the module creates a thread, which runs no code of the application. p11-kit
// passes CKF_LIBRARY_CANT_CREATE_OS_THREADS with CKF_OS_LOCKING_OK to every library. This is accepted.
void checkArguments(const CK_C_INITIALIZE_ARGS& arguments) {
  if (arguments.pReserved) throw Refusal(CKR_ARGUMENTS_BAD, "pReserved is not NULL");
  const int callbacks = (arguments.CreateMutex ? 1 : 0) + (arguments.DestroyMutex ? 1 : 0) +
                        (arguments.LockMutex ? 1 : 0) + (arguments.UnlockMutex ? 1 : 0);
  if (callbacks != 0 && callbacks != 4) throw Refusal(CKR_ARGUMENTS_BAD, "only some of the mutex callbacks are given");
  const CK_FLAGS flags = arguments.flags;
  if (callbacks != 0 && (flags & CKF_OS_LOCKING_OK) == 0) {
    throw Refusal(CKR_CANT_LOCK, "the library uses the system's locks only, flags=", flags);
  }
  if ((flags & (CKF_LIBRARY_CANT_CREATE_OS_THREADS | CKF_OS_LOCKING_OK)) == CKF_LIBRARY_CANT_CREATE_OS_THREADS) {
    throw Refusal(CKR_NEED_TO_CREATE_THREADS, "the module creates a thread, flags=", flags);
  }
}

void startModule(State& state) {
  const CK_RV code = state.module->C_Initialize(nullptr);
  if (code == CKR_CRYPTOKI_ALREADY_INITIALIZED) {
    throw Refusal(CKR_GENERAL_ERROR, "another part of the process has initialised the module");
  }
  if (code != CKR_OK) throw Refusal(CKR_GENERAL_ERROR, "C_Initialize of the module failed: ", code);
  // The module reports success even when the device library does not start.
  CK_INFO info{};
  if (state.module->C_GetInfo(&info) != CKR_OK) throw Refusal(CKR_GENERAL_ERROR, "the device library does not start");
  try {
    ModuleLock module(state);
    state.tokens.refresh(module);
    state.tokens.clearEvents();
  } catch (...) {
    state.module->C_Finalize(nullptr);
    throw;
  }
}

void waitForWaiters(State& state) {
  for (unsigned left = state.waiters; left != 0; left = state.waiters) state.waiters.wait(left);
}

void stopModule(State& state) {
  for (const auto& session : state.sessions.all()) closeSession(state, *session);
  {
    ModuleLock module(state);
    awaitGeneration(module);
    state.ending = true;
    pins.dropAll();
    module->C_Finalize(nullptr);
  }
  waitForWaiters(state);
}

}  // namespace

// Reading the level takes much of a short call's time, so it is read ten times a second at most, but for error lines.
bool tavrin::wantsCallLines() noexcept {
  static std::atomic<std::chrono::steady_clock::duration> nextReading{};
  static std::atomic<bool> wanted = false;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  if (now >= nextReading.load()) {
    wanted = getLogLevel() >= debugLevel;
    nextReading = now + std::chrono::milliseconds(100);
  }
  return wanted;
}

CK_RV C_Initialize(CK_VOID_PTR pInitArgs) {
  return exportedCall("C_Initialize", [&](const Call& call) -> CK_RV {
    const std::lock_guard guard(lifecycle.changing);
    if (currentState()) return call.refuse(CKR_CRYPTOKI_ALREADY_INITIALIZED, "already initialized");
    try {
      if (pInitArgs) checkArguments(*static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs));
      auto state = std::make_shared<State>();
      startModule(*state);
      const std::lock_guard stateGuard(lifecycle.stateMutex);
      lifecycle.state = std::move(state);
    } catch (const Refusal& refusal) {
      return call.refuse(refusal.code(), refusal.reason());
    }
    lifecycle.pin = platform::pinModule();
    return CKR_OK;
  });
}

CK_RV C_Finalize(CK_VOID_PTR pReserved) {
  return exportedCall("C_Finalize", [&](const Call& call) -> CK_RV {
    const std::lock_guard guard(lifecycle.changing);
    const std::shared_ptr<State> state = currentState();
    if (!state) return call.refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "not initialized");
    if (pReserved) return call.refuse(CKR_ARGUMENTS_BAD, "pReserved is not NULL");
    {
      const std::lock_guard stateGuard(lifecycle.stateMutex);
      lifecycle.state.reset();
    }
    stopModule(*state);
    platform::releaseModule(std::exchange(lifecycle.pin, nullptr));
    return CKR_OK;
  });
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo) {
  return libraryCall("C_GetInfo", [&](const Call& call, State&) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");
    pInfo->cryptokiVersion = {standardVersionMajor, standardVersionMinor};
    putText(pInfo->manufacturerID, makerName);
    pInfo->flags = 0;
    putText(pInfo->libraryDescription, "Tavrin PKCS11 Standard Library");
    pInfo->libraryVersion = {TAVRIN_VERSION_MAJOR, TAVRIN_VERSION_MINOR};
    return CKR_OK;
  });
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
  return exportedCall("C_GetFunctionList", [&](const Call& call) -> CK_RV {
    if (!ppFunctionList) return call.refuse(CKR_ARGUMENTS_BAD, "ppFunctionList is NULL");
    *ppFunctionList = const_cast<CK_FUNCTION_LIST_PTR>(&functionList);
    return CKR_OK;
  });
}
