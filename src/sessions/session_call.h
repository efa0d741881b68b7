// The frame of the calls that name a session.
#pragma once

#include "devlib/library_instance.h"
#include "sessions/session_table.h"

namespace tavrin {

// An initialised call on an open session: runs `body(call, session)`.
template <typename Body>
CK_RV sessionCall(const char* name, CK_SESSION_HANDLE hSession, Body&& body) noexcept {
  return initializedCall(name, [&](const Call& call) -> CK_RV {
    const std::shared_ptr<Session> session = sessionTable.find(hSession);
    if (!session) return call.refuse(CKR_SESSION_HANDLE_INVALID, "invalid hSession=", hSession);
    return body(call, *session);
  });
}

// The refusals that several calls share.

inline CK_RV refuseNotInitialized(const Call& call, const Session& session) {
  return call.refuse(CKR_OPERATION_NOT_INITIALIZED,
                     "operation not initialized, activeOperation=", code(session.activeOperation));
}

inline CK_RV refuseActive(const Call& call, const Session& session) {
  return call.refuse(CKR_OPERATION_ACTIVE, "operation already active, activeOperation=", code(session.activeOperation));
}

// The code says that the handle is invalid, not that a login is missing: applications have been built on it.
inline CK_RV refuseState(const Call& call, CK_STATE state) {
  return call.refuse(CKR_SESSION_HANDLE_INVALID, "invalid session state=", state);
}

}  // namespace tavrin
