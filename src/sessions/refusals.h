// The refusals that several calls on a session share.
#pragma once

#include "frame/call_frames.h"
#include "sessions/session.h"

namespace tavrin {

inline CK_RV refuseNotInitialized(const Call& call, const Session& session) {
  return call.refuse(CKR_OPERATION_NOT_INITIALIZED,
                     "operation not initialized, activeOperation=", code(session.activeOperation));
}

inline CK_RV refuseActive(const Call& call, const Session& session) {
  return call.refuse(CKR_OPERATION_ACTIVE, "operation already active, activeOperation=", code(session.activeOperation));
}

// The code reports an invalid handle and not a missing login: applications depend on it.
inline CK_RV refuseState(const Call& call, CK_STATE state) {
  return call.refuse(CKR_SESSION_HANDLE_INVALID, "invalid session state=", state);
}

}  // namespace tavrin
