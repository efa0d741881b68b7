// C_Login, C_Logout and C_SetPIN.
#include "devlib/device_constants.h"
#include "frame/call_frames.h"
#include "sessions/session_table.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

// The effect of a login on one session of the token: its new state, and a refusal with the line to log, if any. Each
// table has at most one such line.
struct LoginEffect {
  CK_STATE state;
  CK_RV refusal;
  const char* message;
};

constexpr const char* readOnlyExists = "read-only session exists, cannot log in as SO";

constexpr LoginEffect userLogin[] = {
    {CKS_RO_USER_FUNCTIONS, CKR_OK, nullptr},  // from CKS_RO_PUBLIC_SESSION
    {CKS_RO_USER_FUNCTIONS, CKR_OK, nullptr},  // from CKS_RO_USER_FUNCTIONS
    {CKS_RW_USER_FUNCTIONS, CKR_OK, nullptr},  // from CKS_RW_PUBLIC_SESSION
    {CKS_RW_USER_FUNCTIONS, CKR_OK, nullptr},  // from CKS_RW_USER_FUNCTIONS
    {CKS_RW_SO_FUNCTIONS, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, "SO already logged in on another session"}};

constexpr LoginEffect officerLogin[] = {{CKS_RO_PUBLIC_SESSION, CKR_SESSION_READ_ONLY_EXISTS, readOnlyExists},
                                        {CKS_RO_USER_FUNCTIONS, CKR_SESSION_READ_ONLY_EXISTS, readOnlyExists},
                                        {CKS_RW_SO_FUNCTIONS, CKR_OK, nullptr},  // from CKS_RW_PUBLIC_SESSION
                                        {CKS_RW_SO_FUNCTIONS, CKR_OK, nullptr},  // from CKS_RW_USER_FUNCTIONS
                                        {CKS_RW_SO_FUNCTIONS, CKR_USER_ALREADY_LOGGED_IN, nullptr}};

// Lets the device check the PIN and maps its status to a result code.
CK_RV validatePassword(const Call& call, const Session& session, CK_USER_TYPE userType, const Pin& pin) {
  int retryCounter = 0;
  const int status = tavrin_validatePassword(session.deviceId(), pin.text(),
                                             userType == CKU_USER ? userPasswordKind : officerPasswordKind,
                                             &retryCounter, libraryInstance);
  if (status == 0) return CKR_OK;
  logError("Token password validation failed : ", status);
  if (status == statusDeviceFault) return CKR_FUNCTION_FAILED;
  return call.refuseBare(retryCounter != 0 ? CKR_PIN_INCORRECT : CKR_PIN_LOCKED,
                         "Token password validation failed, retry count : ", retryCounter);
}

// Changes the state of every session of the token, also when one of them refuses. The last refusal is the result.
CK_RV raiseSessions(const Call& call, const Session& session, const LoginEffect (&effects)[5]) {
  CK_RV result = CKR_OK;
  const char* message = nullptr;
  std::size_t messages = 0;
  sessionTable.forEachOfDevice(session.device.serialNumber, [&](Session& other) {
    const LoginEffect& effect = effects[other.state];
    other.state = effect.state;
    if (effect.refusal != CKR_OK) result = effect.refusal;
    if (!effect.message) return;
    message = effect.message;
    ++messages;
  });
  for (; messages > 0; --messages) call.refuse(result, message);
  return result;
}

bool pinLengthIsBad(CK_ULONG length) { return length < minimumPinLength || length > maximumPinLength; }

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
  return sessionCall("C_Login", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (userType != CKU_USER && userType != CKU_SO) {
      return call.refuse(CKR_USER_TYPE_INVALID, "unsupported userType=", userType);
    }
    if (userType == CKU_USER && session.isUserSession()) {
      logDebug("C_Login: User already logged in");
      return CKR_USER_ALREADY_LOGGED_IN;
    }
    if (!pPin) return call.refuse(CKR_ARGUMENTS_BAD, "pPin is NULL");
    if (pinLengthIsBad(ulPinLen)) {
      return call.refuse(CKR_PIN_LEN_RANGE, "pin length out of range, ulPinLen=", ulPinLen);
    }

    const Pin pin(pPin, ulPinLen);
    // The cached password is accepted for every token without a check by its device.
    if (userType != CKU_USER || !userPassword.equals(pin)) {
      const CK_RV refusal = validatePassword(call, session, userType, pin);
      if (refusal != CKR_OK) return refusal;
    }
    if (userType == CKU_USER) userPassword.set(pin);

    logDebug("Login state : ", session.state.load());
    const CK_RV result = raiseSessions(call, session, userType == CKU_USER ? userLogin : officerLogin);
    logDebug("Login end result : ", result);
    return result;
  });
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession) {
  return sessionCall("C_Logout", hSession, [](const Call& call, Session& session) -> CK_RV {
    if (session.isPublicSession()) {
      return call.refuse(CKR_USER_NOT_LOGGED_IN, "user not logged in, session state=", session.state.load());
    }

    sessionTable.forEachOfDevice(session.device.serialNumber, [](Session& other) { other.dropLogin(); });
    userPassword.clear();
    logDebug("C_Logout end");
    return CKR_OK;
  });
}

CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin,
               CK_ULONG ulNewLen) {
  return sessionCall("C_SetPIN", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    if (session.isReadOnly()) {
      return call.refuse(CKR_SESSION_READ_ONLY, "session is read-only, state=", session.state.load());
    }
    if (!pOldPin) return call.refuse(CKR_ARGUMENTS_BAD, "pOldPin is NULL");
    if (pinLengthIsBad(ulOldLen)) {
      return call.refuse(CKR_PIN_LEN_RANGE, "old pin length out of range, ulOldLen=", ulOldLen);
    }
    if (!pNewPin) return call.refuse(CKR_ARGUMENTS_BAD, "pNewPin is NULL");
    if (pinLengthIsBad(ulNewLen)) {
      return call.refuse(CKR_PIN_LEN_RANGE, "new pin length out of range, ulNewLen=", ulNewLen);
    }

    const Pin oldPin(pOldPin, ulOldLen);
    const Pin newPin(pNewPin, ulNewLen);
    int failureCounter = 0;
    if (!tavrin_changeUserPassword(session.deviceId(), oldPin.text(), newPin.text(), &failureCounter, false, false,
                                   libraryInstance)) {
      return call.refuse(CKR_FUNCTION_FAILED, "tavrin_changeUserPassword failed, failureCount=", failureCounter);
    }
    userPassword.replace(newPin);
    return CKR_OK;
  });
}
