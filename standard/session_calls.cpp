// C_OpenSession, C_CloseSession, C_CloseAllSessions and C_GetSessionInfo.
#include "standard/call_frames.h"

using namespace tavrin;
using namespace tavrin::standard;

// pApplication and Notify are accepted and not used: the library has nothing to notify of.
CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE_PTR phSession) {
  return tokenCall("C_OpenSession", slotID, [&](const Call& call, ModuleLock& module, Token& token) -> CK_RV {
    if ((flags & CKF_SERIAL_SESSION) == 0) {
      return call.refuse(CKR_SESSION_PARALLEL_NOT_SUPPORTED, "CKF_SERIAL_SESSION not set, flags=", flags);
    }
    if (!phSession) return call.refuse(CKR_ARGUMENTS_BAD, "phSession is NULL");
    const bool readWrite = (flags & CKF_RW_SESSION) != 0;
    if (!readWrite && token.login == Login::securityOfficer) {
      return call.refuse(CKR_SESSION_READ_WRITE_SO_EXISTS, "the security officer is logged in");
    }
    *phSession = module.state().sessions.add(std::make_shared<Session>(token, readWrite));
    return CKR_OK;
  });
}

// Closing works on the sessions of a removed token, too.
CK_RV C_CloseSession(CK_SESSION_HANDLE hSession) {
  return libraryCall("C_CloseSession", [&](const Call& call, State& state) -> CK_RV {
    const std::shared_ptr<Session> session = state.sessions.find(hSession);
    if (!session) return call.refuse(CKR_SESSION_HANDLE_INVALID, "invalid hSession=", hSession);
    closeSession(state, *session);
    return CKR_OK;
  });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID) {
  return libraryCall("C_CloseAllSessions", [&](const Call& call, State& state) -> CK_RV {
    if (slotID == 0 || slotID > slotNumbers.count()) return call.refuse(CKR_SLOT_ID_INVALID, "invalid slotID=", slotID);
    for (const auto& session : state.sessions.all())
      if (session->token.slot == slotID) closeSession(state, *session);
    return CKR_OK;
  });
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo) {
  return sessionCall("C_GetSessionInfo", hSession,
                     [&](const Call& call, State& state, const Session& session) -> CK_RV {
                       if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");
                       ModuleLock module(state);
                       state.tokens.refresh(module);
                       session.requireAlive();
                       pInfo->slotID = session.token.slot;
                       pInfo->state = session.state();
                       pInfo->flags = CKF_SERIAL_SESSION | (session.readWrite ? CKF_RW_SESSION : 0U);
                       pInfo->ulDeviceError = 0;
                       return CKR_OK;
                     });
}
