// The frames of the exported functions: what every call checks before its own arguments.
#pragma once

#include "frame/call.h"
#include "standard/module_calls.h"

namespace tavrin::standard {

// A call that is refused while the library is not initialised: runs `body(call, state)`.
template <typename Body>
CK_RV libraryCall(const char* name, Body&& body) noexcept {
  return exportedCall(name, [&](const Call& call) -> CK_RV {
    const std::shared_ptr<State> state = currentState();
    if (!state) return call.refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "not initialized");
    try {
      return body(call, *state);
    } catch (const Refusal& refusal) {
      return call.refuse(refusal.code(), refusal.reason());
    }
  });
}

// A call on an existing slot: runs `body(call, module, token)` under the module lock. The token is null when there was
// never one in the slot. Its record has just been refreshed.
template <typename Body>
CK_RV slotCall(const char* name, CK_SLOT_ID slotID, Body&& body) noexcept {
  return libraryCall(name, [&](const Call& call, State& state) -> CK_RV {
    ModuleLock module(state);
    state.tokens.refresh(module);
    if (slotID == 0 || slotID > slotNumbers.count()) return call.refuse(CKR_SLOT_ID_INVALID, "invalid slotID=", slotID);
    return body(call, module, state.tokens.inSlot(slotID));
  });
}

// A call on a slot that holds a token.
template <typename Body>
CK_RV tokenCall(const char* name, CK_SLOT_ID slotID, Body&& body) noexcept {
  return slotCall(name, slotID, [&](const Call& call, ModuleLock& module, Token* token) -> CK_RV {
    if (!token || !token->present) return call.refuse(CKR_TOKEN_NOT_PRESENT, "no token in slotID=", slotID);
    return body(call, module, *token);
  });
}

// A call on an open session, one at a time in each session: runs `body(call, state, session)`. The sessions of a
// removed token stay until they are closed; other calls in them are refused.
template <typename Body>
CK_RV sessionCall(const char* name, CK_SESSION_HANDLE hSession, Body&& body) noexcept {
  return libraryCall(name, [&](const Call& call, State& state) -> CK_RV {
    const std::shared_ptr<Session> session = state.sessions.find(hSession);
    if (!session) return call.refuse(CKR_SESSION_HANDLE_INVALID, "invalid hSession=", hSession);
    const std::lock_guard guard(session->mutex);
    if (session->closed) return call.refuse(CKR_SESSION_HANDLE_INVALID, "closed hSession=", hSession);
    session->requireAlive();
    return body(call, state, *session);
  });
}

// What exported functions check of their arguments.
inline const CK_MECHANISM& requiredMechanism(const CK_MECHANISM* pMechanism) {
  if (!pMechanism) throw Refusal(CKR_ARGUMENTS_BAD, "pMechanism is NULL");
  return *pMechanism;
}

// The caller's data; only empty data may be at NULL.
inline ByteView requiredData(const CK_BYTE* data, CK_ULONG length) {
  if (!data && length != 0) throw Refusal(CKR_ARGUMENTS_BAD, "the data are NULL with length=", length);
  return {data, static_cast<std::size_t>(length)};
}

inline void requireNoParameter(const CK_MECHANISM& mechanism) {
  if (mechanism.ulParameterLen == 0) return;
  const CK_MECHANISM_TYPE type = mechanism.mechanism;
  throw Refusal(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=", type);
}

inline CK_RV refuseNotInitialized(const Call& call) {
  return call.refuse(CKR_OPERATION_NOT_INITIALIZED, "operation not initialized");
}

}  // namespace tavrin::standard
