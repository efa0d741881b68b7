// C_OpenSession, C_CloseSession, C_CloseAllSessions and C_GetSessionInfo.
#include "frame/call_frames.h"
#include "sessions/session_table.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

// While a user is logged in on any token, new sessions of every token are user sessions.
CK_STATE initialState(CK_FLAGS flags) {
  const bool readWrite = (flags & CKF_RW_SESSION) != 0;
  if (userPassword.isEmpty()) return readWrite ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
  return readWrite ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
}

CK_FLAGS sessionFlags(CK_STATE state) {
  return Session::isReadOnlyState(state) ? CKF_SERIAL_SESSION : CKF_SERIAL_SESSION | CKF_RW_SESSION;
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE_PTR phSession) {
  return slotCall("C_OpenSession", slotID, [&](const Call& call, const TokenInfo& token) -> CK_RV {
    if ((flags & CKF_SERIAL_SESSION) == 0) {
      return call.refuse(CKR_SESSION_PARALLEL_NOT_SUPPORTED, "CKF_SERIAL_SESSION not set, flags=", flags);
    }
    if (!phSession) return call.refuse(CKR_ARGUMENTS_BAD, "phSession is NULL");

    auto session = std::make_shared<Session>();
    session->slotID = slotID;
    session->device = token;
    session->state = initialState(flags);
    const CK_SESSION_HANDLE handle = sessionTable.insert(std::move(session));
    if (handle == 0) return call.refuse(CKR_SESSION_COUNT, "no session handle left");
    *phSession = handle;
    logDebug("Opensession  : ", handle);
    return CKR_OK;
  });
}

CK_RV C_CloseSession(CK_SESSION_HANDLE hSession) {
  return sessionCall("C_CloseSession", hSession, [&](const Call&, Session&) -> CK_RV {
    sessionTable.erase(hSession);
    return CKR_OK;
  });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID) {
  return slotCall("C_CloseAllSessions", slotID, [](const Call&, const TokenInfo&) -> CK_RV {
    // The sessions of every slot, not only of this one.
    sessionTable.clear();
    logDebug("Close all session");
    return CKR_OK;
  });
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo) {
  return sessionCall("C_GetSessionInfo", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");

    const CK_STATE state = session.state;
    *pInfo = {session.slotID, state, sessionFlags(state), 0};
    return CKR_OK;
  });
}
