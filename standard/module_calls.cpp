#include "standard/module_calls.h"

#include <utility>

namespace tavrin::standard {
namespace {

bool isLoggedInState(CK_STATE state) { return state == CKS_RO_USER_FUNCTIONS || state >= CKS_RW_USER_FUNCTIONS; }

CK_STATE stateOf(ModuleLock& module, CK_SESSION_HANDLE session) {
  CK_SESSION_INFO info{};
  return module->C_GetSessionInfo(session, &info) == CKR_OK ? info.state : CKS_RW_PUBLIC_SESSION;
}

// Logs out whoever is logged in to the module. A key that is being generated under that login fails.
void logoutOfModule(ModuleLock& module) {
  Token* token = std::exchange(module.state().loggedIn, nullptr);
  if (token && token->moduleSession != 0 && isLoggedInState(stateOf(module, token->moduleSession))) {
    module->C_Logout(token->moduleSession);
  }
}

// While another token's user is logged in, the module opens new sessions as logged in. Removing this token would then
// log that user out. So this session, and that user in the module, are logged out here; the next use logs in again.
void undoBorrowedLogin(ModuleLock& module, const Token& token, CK_SESSION_HANDLE session) {
  if (module.state().loggedIn == &token || !isLoggedInState(stateOf(module, session))) return;
  logoutOfModule(module);
  if (isLoggedInState(stateOf(module, session))) module->C_Logout(session);
}

CK_SESSION_HANDLE openSession(ModuleLock& module, const Token& token, CK_FLAGS access) {
  if (module.state().ending) throw Refusal(CKR_CRYPTOKI_NOT_INITIALIZED, "the library is being finalised");
  if (!token.present) throw Refusal(CKR_DEVICE_REMOVED, "the token is not present");
  CK_SESSION_HANDLE session = 0;
  const CK_RV code = module->C_OpenSession(token.moduleSlot, CKF_SERIAL_SESSION | access, nullptr, nullptr, &session);
  if (code != CKR_OK) throw moduleFailure(module, token, "C_OpenSession", code);
  undoBorrowedLogin(module, token, session);
  return session;
}

CK_SESSION_HANDLE openedSession(ModuleLock& module, const Token& token, CK_SESSION_HANDLE& session, CK_FLAGS access) {
  if (session == 0) awaitGeneration(module, &token);
  if (session == 0) session = openSession(module, token, access);
  return session;
}

}  // namespace

void awaitGeneration(ModuleLock& module, const Token* token) {
  State& state = module.state();
  state.idle.wait(module.lock(), [&] { return state.generating == 0 || (token && state.loggedIn == token); });
}

CK_SESSION_HANDLE lockedSession(ModuleLock& module, Token& token) {
  return openedSession(module, token, token.moduleSession, CKF_RW_SESSION);
}

CK_SESSION_HANDLE keyUseSession(ModuleLock& module, Token& token) {
  return openedSession(module, token, token.keyUseSession, 0);
}

void closeKeyUseSession(ModuleLock& module, Token& token) {
  if (token.keyUseSession != 0) module->C_CloseSession(std::exchange(token.keyUseSession, 0));
}

CK_RV loginToModule(ModuleLock& module, Token& token, CK_USER_TYPE userType, std::span<CK_UTF8CHAR> pin) {
  const CK_SESSION_HANDLE session = lockedSession(module, token);
  logoutOfModule(module);
  if (isLoggedInState(stateOf(module, session))) module->C_Logout(session);
  if (userType == CKU_SO) closeKeyUseSession(module, token);  // else the officer's login is refused
  const CK_RV code = module->C_Login(session, userType, pin.data(), static_cast<CK_ULONG>(pin.size()));
  if (code != CKR_OK) return code;
  if (userType == CKU_USER) {
    module.state().loggedIn = &token;
  } else {
    // Only the PIN had to be checked; the module can do nothing as security officer.
    module->C_Logout(session);
  }
  return CKR_OK;
}

void requestLogin(ModuleLock& module, Token& token) {
  awaitGeneration(module, &token);
  if (token.login != Login::user) throw Refusal(CKR_USER_NOT_LOGGED_IN, "the user is not logged in");
  if (module.state().loggedIn == &token) return;
  const CK_RV code = loginToModule(module, token, CKU_USER, pins.of(token.slot));
  if (code == CKR_OK) return;
  const Refusal failure = moduleFailure(module, token, "C_Login", code, CKR_USER_NOT_LOGGED_IN);
  // Never tried again with this PIN: each try may cost one of those that the token allows.
  if (token.present && (code == CKR_PIN_INCORRECT || code == CKR_PIN_LOCKED)) endLogin(module, token);
  throw failure;
}

void useLogin(ModuleLock& module, Token& token) {
  requestLogin(module, token);
  if (isLoggedInState(stateOf(module, lockedSession(module, token)))) return;
  // The module has noticed the removal of the token. The token may be back, but its login has ended.
  forgetToken(module, token);
  token.present = false;
  module.state().tokens.refresh(module);
  throw Refusal(CKR_DEVICE_REMOVED, "the token was removed");
}

void endLogin(ModuleLock& module, Token& token) {
  if (module.state().loggedIn == &token) logoutOfModule(module);
  token.login = Login::none;
  ++token.logouts;
  pins.drop(token.slot);
  // The standard ends the handles of private objects: the next login gives new ones.
  module.state().objects.dropIf([&](const Object& object) { return object.token == &token && object.isPrivate; });
}

void forgetToken(ModuleLock& module, Token& token) {
  endLogin(module, token);
  if (token.moduleSession != 0) module->C_CloseSession(std::exchange(token.moduleSession, 0));
  closeKeyUseSession(module, token);
  std::vector<CK_SESSION_HANDLE> idleSessions;
  {
    const std::lock_guard guard(token.idleMutex);
    idleSessions.swap(token.idleSessions);
  }
  for (const CK_SESSION_HANDLE session : idleSessions) module->C_CloseSession(session);
  module.state().objects.dropIf([&](const Object& object) {
    return object.token == &token && (object.session != 0 || object.moduleHandle == 0);
  });
}

Refusal moduleFailure(ModuleLock& module, const Token& token, const char* function, CK_RV code, CK_RV otherwise) {
  if (code == CKR_HOST_MEMORY || code == CKR_DEVICE_MEMORY) return Refusal(code, function, " ran out of memory");
  if (code == CKR_CRYPTOKI_NOT_INITIALIZED) return Refusal(code, "the library is being finalised");
  module.state().tokens.refresh(module);
  if (!token.present) return Refusal(CKR_DEVICE_REMOVED, "the token was removed");
  return Refusal(otherwise, function, " of the module failed: ", code);
}

ModuleSession::ModuleSession(State& state, Token& token) : state_(state), token_(token), insertion_(token.insertion) {
  {
    const std::lock_guard guard(token.idleMutex);
    if (!token.idleSessions.empty()) {
      handle_ = token.idleSessions.back();
      token.idleSessions.pop_back();
      return;
    }
  }
  ModuleLock module(state);
  awaitGeneration(module, &token);
  handle_ = openSession(module, token, CKF_RW_SESSION);
}

void ModuleSession::fail(const char* function, CK_RV code) {
  spoil();
  ModuleLock module(state_);
  throw moduleFailure(module, token_, function, code);
}

ModuleSession::~ModuleSession() {
  if (state_.ending) return;
  if (!spoiled_ && token_.insertion == insertion_ && token_.present) {
    const std::lock_guard guard(token_.idleMutex);
    token_.idleSessions.push_back(handle_);
    return;
  }
  state_.module->C_CloseSession(handle_);
}

}  // namespace tavrin::standard
