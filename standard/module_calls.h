// Use of the module: its sessions, its login, its failures.
#pragma once

#include "standard/refusal.h"
#include "standard/state.h"

namespace tavrin::standard {

// The session in which calls to the module are made under the lock. Throws CKR_DEVICE_REMOVED when there is no token.
CK_SESSION_HANDLE lockedSession(ModuleLock& module, Token& token);

// The same for key operations. This session is read-only: the module refuses to begin a signature or decryption in it
// with CKR_SESSION_HANDLE_INVALID when it has lost the login. An operation that failed may be left in it; it is closed
// then, and the next use opens another one.
CK_SESSION_HANDLE keyUseSession(ModuleLock& module, Token& token);
void closeKeyUseSession(ModuleLock& module, Token& token);

// Makes the token's user the one who is logged in to the module, which knows one user at a time. Throws
// CKR_USER_NOT_LOGGED_IN when the token's user is not logged in or the token no longer accepts the PIN. The second
// function also asks the module whether it still has a login that it had, and throws CKR_DEVICE_REMOVED if not.
void requestLogin(ModuleLock& module, Token& token);
void useLogin(ModuleLock& module, Token& token);

// Logs the user or security officer in to the module, checked by the token; the code is the module's.
CK_RV loginToModule(ModuleLock& module, Token& token, CK_USER_TYPE userType, std::span<CK_UTF8CHAR> pin);

// Ends the token's login here and in the module, and with it the private objects that this library holds.
void endLogin(ModuleLock& module, Token& token);

// Forgets what belonged to a removed token: sessions of the module, login, session objects and private objects.
void forgetToken(ModuleLock& module, Token& token);

// Translates the code of a failed call to the module: CKR_DEVICE_REMOVED if the token is missing, codes of memory and
// CKR_CRYPTOKI_NOT_INITIALIZED unchanged, else `otherwise`.
Refusal moduleFailure(ModuleLock& module, const Token& token, const char* function, CK_RV code,
                      CK_RV otherwise = CKR_DEVICE_ERROR);
Refusal moduleFailure(State& state, const Token& token, const char* function, CK_RV code,
                      CK_RV otherwise = CKR_DEVICE_ERROR);

// A session of the module for calls that need no lock. The destructor keeps the session for the next object of this
// class, unless it was spoiled.
class ModuleSession {
 public:
  // Opens one under the module lock when none is idle.
  ModuleSession(State& state, Token& token);
  ~ModuleSession();
  ModuleSession(const ModuleSession&) = delete;
  ModuleSession& operator=(const ModuleSession&) = delete;

  CK_SESSION_HANDLE handle() const { return handle_; }
  State& state() const { return state_; }
  Token& token() const { return token_; }
  void spoil() { spoiled_ = true; }

 private:
  State& state_;
  Token& token_;
  unsigned insertion_;
  CK_SESSION_HANDLE handle_ = 0;
  bool spoiled_ = false;
};

}  // namespace tavrin::standard
