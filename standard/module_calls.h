// Use of the module: its sessions, its login, its failures.
#pragma once

#include "standard/refusal.h"
#include "standard/state.h"

namespace tavrin::standard {

// Waits until no key is being generated under the login of another token, or of any token without an argument. The
// module lock is released while it waits. The functions below that open a session or log in call it.
void awaitGeneration(ModuleLock& module, const Token* token = nullptr);

// The session in which calls to the module are made under the lock. Throws CKR_DEVICE_REMOVED when there is no token.
CK_SESSION_HANDLE lockedSession(ModuleLock& module, Token& token);

// The same for key operations. This session is read-only: the module refuses to begin a signature or decryption in it
// with CKR_SESSION_HANDLE_INVALID when it has lost the login. After a failed operation the session is closed, because
// the operation may still be active in it.
CK_SESSION_HANDLE keyUseSession(ModuleLock& module, Token& token);
void closeKeyUseSession(ModuleLock& module, Token& token);

// Logs the token's user in to the module, which has one login at a time. Throws CKR_USER_NOT_LOGGED_IN when the user is
// not logged in here or the token no longer accepts the PIN. useLogin also checks that the module has kept the login.
// If not, the token was removed: CKR_DEVICE_REMOVED.
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

// The module takes lengths of 32 bits with a sign. Longer data are passed in pieces.
inline constexpr std::size_t longestPiece = std::size_t{1} << 30;

// A session of the module for calls without the lock. The destructor keeps it for the next object unless spoiled.
class ModuleSession {
 public:
  // Opens one under the module lock when none is idle.
  ModuleSession(State& state, Token& token);
  ~ModuleSession();
  ModuleSession(const ModuleSession&) = delete;
  ModuleSession& operator=(const ModuleSession&) = delete;

  CK_SESSION_HANDLE handle() const { return handle_; }
  State& state() const { return state_; }
  void spoil() { spoiled_ = true; }
  // Throws what moduleFailure() makes of the code of a failed call. Takes the module lock.
  [[noreturn]] void fail(const char* function, CK_RV code);

 private:
  State& state_;
  Token& token_;
  unsigned insertion_;
  CK_SESSION_HANDLE handle_ = 0;
  bool spoiled_ = false;
};

}  // namespace tavrin::standard
