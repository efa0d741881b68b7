// The frame of every exported function. A function of the standard is one statement:
//
//   CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo) {
//     return sessionCall("C_GetSessionInfo", hSession, [&](const Call& call, const Session& session) -> CK_RV {
//       if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");
//       ...
//     });
//   }
//
// The frames are nested. Each makes one check that every function would need, then runs the body:
//
//   exportedCall      writes the debug line with the function's name; turns exceptions into result codes
//   initializedCall   refuses the call while the module is not initialised
//   slotCall          finds the slot's token record
//   sessionCall       finds the session
//
// Any thread may call an exported function. No frame holds a lock while the body runs.
#pragma once

#include <memory>

#include "devlib/device_library.h"
#include "devlib/library_instance.h"
#include "frame/call.h"

namespace tavrin {

struct Session;

// Look-ups that the frames need. They are defined in slots/ and sessions/, the layers above this one. Null for an
// unknown ID or handle. The record and the session stay valid while the pointer exists.
std::shared_ptr<const TokenInfo> findSlot(CK_SLOT_ID slotID);
std::shared_ptr<Session> findSession(CK_SESSION_HANDLE handle);

// What a frame logs when it refuses a call. C_DestroyObject and C_DeriveKey log less than the other functions.
enum class RefusalLines {
  errors,                  // an error line for each refusal
  debugForUnknownSession,  // the same, but the debug line of C_DestroyObject for an unknown session
  none
};

template <typename Body>
CK_RV initializedCall(const char* name, Body&& body, RefusalLines lines = RefusalLines::errors) noexcept {
  return exportedCall(name, [&](const Call& call) -> CK_RV {
    if (libraryInstance != nullptr) return body(call);
    if (lines == RefusalLines::none) return CKR_CRYPTOKI_NOT_INITIALIZED;
    return call.refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "not initialized");
  });
}

// Runs `body(call, token)` with the slot's token record.
template <typename Body>
CK_RV slotCall(const char* name, CK_SLOT_ID slotID, Body&& body) noexcept {
  return initializedCall(name, [&](const Call& call) -> CK_RV {
    const auto token = findSlot(slotID);
    if (!token) return call.refuse(CKR_SLOT_ID_INVALID, "invalid slotID=", slotID);
    return body(call, *token);
  });
}

// Runs `body(call, session)`. The session exists at least until the body returns, even if another thread closes it.
template <typename Body>
CK_RV sessionCall(const char* name, CK_SESSION_HANDLE hSession, Body&& body,
                  RefusalLines lines = RefusalLines::errors) noexcept {
  return initializedCall(
      name,
      [&](const Call& call) -> CK_RV {
        const auto session = findSession(hSession);
        if (session) return body(call, *session);
        if (lines == RefusalLines::errors) {
          return call.refuse(CKR_SESSION_HANDLE_INVALID, "invalid hSession=", hSession);
        }
        if (lines == RefusalLines::debugForUnknownSession) logDebug("Delete session state invalid");
        return CKR_SESSION_HANDLE_INVALID;
      },
      lines);
}

}  // namespace tavrin
