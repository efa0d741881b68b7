// C_SignInit, C_Sign, C_SignUpdate and C_SignFinal.
#include "crypto/firmware_gate.h"
#include "crypto/result_delivery.h"
#include "crypto/signature_input.h"
#include "objects/object_handles.h"
#include "sessions/refusals.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

void logInput(const Session& session, bool passwordIsEmpty, ByteView input) {
  logDebug("Sign: password empty=", passwordIsEmpty ? 1 : 0, " hashLen=", input.size(),
           " session state=", session.state.load());
  if (input.empty()) {
    logDebug("Sign input hash : NULL or empty");
  } else {
    logDebug("Sign input hash : ", Hex{input});
  }
}

// Signs the input and keeps the signature in the session. Returns the device's status.
int signInput(Session& session, const Pin& password, ByteView input) {
  std::uint8_t signature[maximumSignatureLength] = {};
  int length = sizeof signature;
  const int status =
      tavrin_signHash(session.deviceId(), session.operationKey->recordId, password.text(), input.data(),
                      deviceLength(input.size()), signature, &length, false, libraryInstance, session.mechanism->pss);
  if (status == 0) session.result.assign(signature, signature + returnedLength(length, sizeof signature));
  return status;
}

CK_RV signMessage(const Call& call, Session& session, ByteView message) {
  static constexpr HashErrorTexts texts{"init hash failed ", "update hash failed ", "final hash failed "};
  Digest digest;
  ByteView input;
  const CK_RV refusal = makeInput(session, message, texts, digest, input);
  if (refusal != CKR_OK) return refusal;
  const Pin password = userPassword.copy();
  logInput(session, password.isEmpty(), input);
  const int status = signInput(session, password, input);
  if (status == 0) return CKR_OK;
  return endFailed(session, call.refuseBare(CKR_FUNCTION_FAILED, "Sign hash failed : ", status));
}

CK_RV signParts(const Call& call, Session& session) {
  SecretBytes input;
  const CK_RV refusal = takeInput(call, session, session.mechanism->hash, input);
  if (refusal != CKR_OK) return refusal;
  const int status = signInput(session, userPassword.copy(), input);
  if (status == 0) return CKR_OK;
  return endFailed(session, call.refuse(CKR_FUNCTION_FAILED, "signHash failed ", status));
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_SignInit", hSession, [&](const Call& call, Session& session) -> CK_RV {
    const CK_STATE state = session.state;
    if (state == CKS_RO_PUBLIC_SESSION) return refuseState(call, state);
    if (session.activeOperation != Operation::none) return refuseActive(call, session);
    if (!pMechanism) return call.refuse(CKR_ARGUMENTS_BAD, "pMechanism is NULL");
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    const Mechanism* mechanism = findMechanism(type, CKF_SIGN);
    if (!mechanism) return call.refuse(CKR_MECHANISM_INVALID, "unsupported mechanism=", type);
    // A PSS parameter is not examined: the device has its own settings.
    if (!mechanism->pss && hasParameter(*pMechanism)) {
      return call.refuse(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=", type);
    }
    if (mechanism->pss) {
      logDebug("firmware veriosn :: ", session.device.firmwareVersion);
      if (!firmwareHasPssAndOaep(session)) return refusePss(call, session);
    }

    if (hKey < privateKeyBase) return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid hKey=", hKey);
    const TavrinKeyPair* keyPair = resolveKeyPair(session, hKey, privateKeyBase);
    if (!keyPair) return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in sign : ", hKey);
    session.operationKey = keyPair;
    session.mechanism = mechanism;
    wipeAndFree(session.result);
    session.activeOperation = Operation::signing;
    return CKR_OK;
  });
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
             CK_ULONG_PTR pulSignatureLen) {
  return sessionCall("C_Sign", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::signing) return refuseNotInitialized(call, session);
    if (!pData) return call.refuse(CKR_ARGUMENTS_BAD, "pData is NULL");
    if (ulDataLen == 0) return call.refuse(CKR_ARGUMENTS_BAD, "ulDataLen<=0, ulDataLen=", ulDataLen);
    if (!pulSignatureLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulSignatureLen is NULL");
    logDebug("sign echanism : ", session.mechanism->type);

    // A signature that a query has made is returned without looking at the data again.
    if (session.result.empty()) {
      const CK_RV refusal = signMessage(call, session, {pData, static_cast<std::size_t>(ulDataLen)});
      if (refusal != CKR_OK) return refusal;
    }
    return deliverResult(call, session, pSignature, pulSignatureLen);
  });
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return sessionCall("C_SignUpdate", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::signing) return refuseNotInitialized(call, session);
    if (!pPart || ulPartLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
    }
    return takePart(call, session, session.mechanism->hash, {pPart, static_cast<std::size_t>(ulPartLen)});
  });
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen) {
  return sessionCall("C_SignFinal", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::signing) return refuseNotInitialized(call, session);
    if (!pulSignatureLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulSignatureLen is NULL");

    if (session.result.empty()) {
      const CK_RV refusal = signParts(call, session);
      if (refusal != CKR_OK) return refusal;
    }
    return deliverResult(call, session, pSignature, pulSignatureLen);
  });
}
