// C_Login, C_Logout and C_SetPIN.
#include <algorithm>

#include "standard/call_frames.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

// A PIN that the token can have. Others are refused here: the module would cut them, or refuse them by their length.
bool isPossiblePin(std::span<const CK_UTF8CHAR> pin) {
  return pin.size() >= minimumPinLength && pin.size() <= maximumPinLength && std::ranges::find(pin, 0) == pin.end();
}

void checkSecurityOfficer(const State& state, const Token& token) {
  if (token.login == Login::user) throw Refusal(CKR_USER_ANOTHER_ALREADY_LOGGED_IN, "the user is logged in");
  if (state.sessions.count(token) != state.sessions.count(token, true)) {
    throw Refusal(CKR_SESSION_READ_ONLY_EXISTS, "a read-only session exists");
  }
}

void checkUser(const Token& token, CK_USER_TYPE userType) {
  if (token.login == Login::securityOfficer) {
    throw Refusal(CKR_USER_ANOTHER_ALREADY_LOGGED_IN, "the security officer is logged in");
  }
  // No key has CKA_ALWAYS_AUTHENTICATE, so no operation needs a login of its own.
  if (userType == CKU_CONTEXT_SPECIFIC) throw Refusal(CKR_OPERATION_NOT_INITIALIZED, "no operation needs a login");
}

}  // namespace

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
  return sessionCall("C_Login", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    if (userType > CKU_CONTEXT_SPECIFIC) return call.refuse(CKR_USER_TYPE_INVALID, "unsupported userType=", userType);
    if (!pPin) return call.refuse(CKR_ARGUMENTS_BAD, "pPin is NULL");
    ModuleLock module(state);
    Token& token = session.token;
    awaitGeneration(module, &token);
    const Login wanted = userType == CKU_SO ? Login::securityOfficer : Login::user;
    if (token.login == wanted && userType != CKU_CONTEXT_SPECIFIC) {
      return call.refuse(CKR_USER_ALREADY_LOGGED_IN, "already logged in, userType=", userType);
    }
    userType == CKU_SO ? checkSecurityOfficer(state, token) : checkUser(token, userType);
    const std::span<CK_UTF8CHAR> pin(pPin, static_cast<std::size_t>(ulPinLen));
    if (!isPossiblePin(pin)) return call.refuse(CKR_PIN_INCORRECT, "no PIN of this token, ulPinLen=", ulPinLen);

    const CK_RV code = loginToModule(module, token, userType, pin);
    const CK_FLAGS countLow = userType == CKU_SO ? CKF_SO_PIN_COUNT_LOW : CKF_USER_PIN_COUNT_LOW;
    if (code == CKR_PIN_INCORRECT || code == CKR_PIN_LOCKED) {
      token.wrongPins |= countLow;
      if (userType == CKU_USER) state.tokens.countWrongPin(module, token);
      return call.refuse(code, "the token refused the PIN");
    }
    if (code != CKR_OK) throw moduleFailure(module, token, "C_Login", code);
    if (wanted == Login::user && !pins.keep(token.slot, pin)) {
      endLogin(module, token);
      return call.refuse(CKR_HOST_MEMORY, "too many slots to keep a login for slotID=", token.slot);
    }
    token.login = wanted;
    token.wrongPins &= ~countLow;
    return CKR_OK;
  });
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession) {
  return sessionCall("C_Logout", hSession, [&](const Call& call, State& state, const Session& session) -> CK_RV {
    ModuleLock module(state);
    // A pair for a session that is being generated must be known before the session objects are ended.
    if (state.loggedIn == &session.token) awaitGeneration(module);
    if (session.token.login == Login::none) return call.refuse(CKR_USER_NOT_LOGGED_IN, "nobody is logged in");
    endSessionObjects(module, session.token, CK_INVALID_HANDLE);
    endLogin(module, session.token);
    return CKR_OK;
  });
}

CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin,
               CK_ULONG ulNewLen) {
  return sessionCall("C_SetPIN", hSession, [&](const Call& call, State& state, const Session& session) -> CK_RV {
    if (!session.readWrite) return call.refuse(CKR_SESSION_READ_ONLY, "the session is read-only");
    if (!pOldPin) return call.refuse(CKR_ARGUMENTS_BAD, "pOldPin is NULL");
    if (!pNewPin) return call.refuse(CKR_ARGUMENTS_BAD, "pNewPin is NULL");
    if (ulNewLen < minimumPinLength || ulNewLen > maximumPinLength) {
      return call.refuse(CKR_PIN_LEN_RANGE, "new pin length out of range, ulNewLen=", ulNewLen);
    }
    if (!isPossiblePin({pNewPin, static_cast<std::size_t>(ulNewLen)})) {
      return call.refuse(CKR_PIN_INVALID, "the new pin has a NUL");
    }
    if (!isPossiblePin({pOldPin, static_cast<std::size_t>(ulOldLen)})) {
      return call.refuse(CKR_PIN_INCORRECT, "no PIN of this token, ulOldLen=", ulOldLen);
    }
    ModuleLock module(state);
    Token& token = session.token;
    if (token.login == Login::securityOfficer) {
      return call.refuse(CKR_FUNCTION_NOT_SUPPORTED, "the security officer's PIN cannot be changed");
    }

    const CK_RV code = module->C_SetPIN(lockedSession(module, token), pOldPin, ulOldLen, pNewPin, ulNewLen);
    if (code == CKR_OK) {
      token.wrongPins &= ~CK_FLAGS{CKF_USER_PIN_COUNT_LOW};
      if (token.login == Login::user) pins.keep(token.slot, {pNewPin, static_cast<std::size_t>(ulNewLen)});
      return CKR_OK;
    }
    // The module does not report the reason. Both PINs had a possible form, so the token has refused the old one.
    state.tokens.countWrongPin(module, token);
    const Refusal failure = moduleFailure(module, token, "C_SetPIN", code, CKR_PIN_INCORRECT);
    if (failure.code() == CKR_PIN_INCORRECT) token.wrongPins |= CKF_USER_PIN_COUNT_LOW;
    if (failure.code() == CKR_PIN_INCORRECT && (token.flags & CKF_USER_PIN_LOCKED) != 0) {
      return call.refuse(CKR_PIN_LOCKED, "the PIN is locked");
    }
    throw failure;
  });
}
