// C_Initialize, C_Finalize, C_GetInfo and C_GetFunctionList, and the function list itself.
#include <algorithm>
#include <string_view>

#include "devlib/device_constants.h"
#include "devlib/device_library.h"
#include "frame/call_frames.h"
#include "sessions/session_table.h"
#include "sessions/user_password.h"
#include "slots/device_monitor.h"
#include "slots/slot_table.h"

namespace tavrin {
namespace {

#define ENTRY(name, parameters) .name = (name),
const CK_FUNCTION_LIST functionList = {.version = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR},
                                       CRYPTOKI_FUNCTIONS(ENTRY)};
#undef ENTRY

// Copies the text with its NUL and leaves the rest of the field as the caller supplied it.
void copyTerminated(CK_UTF8CHAR* field, std::string_view text) {
  std::copy(text.begin(), text.end(), field);
  field[text.size()] = '\0';
}

// Created in a plain pointer, which the library may read.
void createInstance() {
  void* instance = nullptr;
  tavrin_createInstance(&instance);
  libraryInstance = instance;
}

// The module is not initialised afterwards, even if the library throws.
void releaseInstance() {
  const struct Clear {
    ~Clear() { libraryInstance = nullptr; }
  } clear;
  if (libraryInstance != nullptr) tavrin_releaseInstance(libraryInstance);
}

void emptyTables() {
  slotTable.clear();
  sessionTable.clear();
  userPassword.clear();
}

// Creates the instance and starts the monitor. If an earlier C_Initialize failed to create an instance, its monitor is
// still running and is stopped first. At the end of the process its thread may have ended without being joined.
void start() {
  createInstance();
  if (deviceMonitor.monitorRunning) logDebug("Monitor already running. Stopping old thread.");
  if (deviceMonitor.monitorRunning || deviceMonitor.monitorThread.joinable()) stopDeviceMonitor();
  try {
    startDeviceMonitor();
  } catch (...) {
    releaseInstance();
    throw;
  }
}

}  // namespace

bool wantsCallLines() noexcept { return getLogLevel() >= debugLevel; }

}  // namespace tavrin

using namespace tavrin;

CK_RV C_Initialize(CK_VOID_PTR) {
  return exportedCall("C_Initialize", [](const Call& call) -> CK_RV {
    if (libraryInstance != nullptr) return call.refuse(CKR_CRYPTOKI_ALREADY_INITIALIZED, "already initialized");

    start();
    // The call succeeds: the monitor runs, and every later call is refused as not initialised.
    if (libraryInstance == nullptr) logError("Init pkcs11 library failed failed");
    return CKR_OK;
  });
}

CK_RV C_Finalize(CK_VOID_PTR) {
  return initializedCall("C_Finalize", [](const Call&) -> CK_RV {
    stopDeviceMonitor();
    try {
      releaseInstance();
    } catch (...) {
      emptyTables();
      throw;
    }
    emptyTables();
    logDebug("C_Finalize completed successfully.");
    return CKR_OK;
  });
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo) {
  return initializedCall("C_GetInfo", [&](const Call& call) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");

    pInfo->cryptokiVersion = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR};
    copyTerminated(pInfo->manufacturerID, makerName);
    pInfo->flags = 0;
    copyTerminated(pInfo->libraryDescription, "Tavrin PKCS11 Library");
    pInfo->libraryVersion = {TAVRIN_VERSION_MAJOR, TAVRIN_VERSION_MINOR};
    return CKR_OK;
  });
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
  return exportedCall("C_GetFunctionList", [&](const Call& call) -> CK_RV {
    if (!ppFunctionList) return call.refuse(CKR_ARGUMENTS_BAD, "ppFunctionList is NULL");
    // The standard's type is not const, but the list is in read-only memory.
    *ppFunctionList = const_cast<CK_FUNCTION_LIST_PTR>(&functionList);
    return CKR_OK;
  });
}
