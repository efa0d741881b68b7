// C_VerifyInit, C_Verify, C_VerifyUpdate and C_VerifyFinal.
#include "crypto/der.h"
#include "crypto/firmware_gate.h"
#include "crypto/signature_input.h"
#include "objects/object_handles.h"
#include "sessions/refusals.h"

namespace tavrin {
namespace {

constexpr std::uint8_t derSequence = 0x30;

struct Signature {
  CK_BYTE_PTR bytes;
  CK_ULONG length;
};

// The public key in the form that the device expects. An EC point or a DER key is passed unchanged; an RSA modulus is
// converted to SubjectPublicKeyInfo.
std::vector<std::uint8_t> preparePublicKey(const TavrinKeyPair& keyPair) {
  const ByteView key = publicKey(keyPair);
  const KeyTypeInfo* type = findKeyType(keyPair.keyType);
  const bool isEc = type && type->algorithm == KeyAlgorithm::ec;
  if (isEc || key.empty() || key.front() == derSequence) {
    logDebug("Public key passed as-is");
    return {key.begin(), key.end()};
  }
  logDebug("Public key is not der need to convert to the der");
  return rsaSubjectPublicKeyInfo(key);
}

// Ends the operation. Returns the device's status, 0 for a valid signature.
int verifyInput(Session& session, ByteView input, ByteView key, Signature signature, bool pss) {
  session.activeOperation = Operation::none;
  return tavrin_verifySignatureHash(session.operationKey->keyType, session.deviceId(), input.data(),
                                    deviceLength(input.size()), key.data(), static_cast<int>(key.size()),
                                    signature.bytes, deviceLength(signature.length), libraryInstance, pss);
}

CK_RV verifyMessage(const Call& call, Session& session, const HashErrorTexts& texts, ByteView message,
                    Signature signature) {
  Digest digest;
  ByteView input;
  const CK_RV refusal = makeInput(session, message, texts, digest, input);
  if (refusal != CKR_OK) return refusal;
  const auto key = preparePublicKey(*session.operationKey);
  const int status = verifyInput(session, input, key, signature, session.mechanism->pss);
  if (status == 0) return CKR_OK;
  return call.refuseBare(CKR_SIGNATURE_INVALID, "Verify signature failed : ", status);
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_VerifyInit", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::none) return refuseActive(call, session);
    if (!pMechanism) return call.refuse(CKR_ARGUMENTS_BAD, "pMechanism is NULL");
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    const Mechanism* mechanism = findMechanism(type, CKF_VERIFY);
    if (!mechanism) return call.refuse(CKR_MECHANISM_INVALID, "unsupported mechanism=", type);
    if (hKey < privateKeyBase) return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid hKey=", hKey);
    const CK_OBJECT_HANDLE base = hKey >= publicKeyBase ? publicKeyBase : privateKeyBase;
    session.operationKey = resolveKeyPair(session, hKey, base);
    if (!session.operationKey) {
      return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in verify : ", hKey);
    }
    if (mechanism->pss && !firmwareHasPssAndOaep(session)) return refusePss(call, session);

    session.mechanism = mechanism;
    session.activeOperation = Operation::verification;
    return CKR_OK;
  });
}

CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
               CK_ULONG ulSignatureLen) {
  return sessionCall("C_Verify", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::verification) return refuseNotInitialized(call, session);
    if (!pData || !pSignature) return call.refuse(CKR_ARGUMENTS_BAD, "pData or pSignature is NULL");
    if (ulDataLen == 0 || ulSignatureLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "ulDataLen or ulSignatureLen <= 0, ulDataLen=", ulDataLen,
                         " ulSignatureLen=", ulSignatureLen);
    }

    static constexpr HashErrorTexts texts{
        "C_Verify: initHash failed ret=", "C_Verify: updateHash failed ret=", "C_Verify: finalHash failed ret="};
    return verifyMessage(call, session, texts, {pData, static_cast<std::size_t>(ulDataLen)},
                         {pSignature, ulSignatureLen});
  });
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return sessionCall("C_VerifyUpdate", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::verification) return refuseNotInitialized(call, session);
    if (!pPart || ulPartLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
    }
    return takePart(call, session, session.mechanism->hashWhenVerifyingInParts,
                    {pPart, static_cast<std::size_t>(ulPartLen)});
  });
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen) {
  return sessionCall("C_VerifyFinal", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::verification) return refuseNotInitialized(call, session);
    if (!pSignature || ulSignatureLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=", ulSignatureLen);
    }

    SecretBytes input;
    const CK_RV refusal = takeInput(call, session, session.mechanism->hashWhenVerifyingInParts, input);
    if (refusal != CKR_OK) return refusal;
    // For a message in parts the device has always received the key as it is stored, and never the PSS flag.
    const int status =
        verifyInput(session, input, publicKey(*session.operationKey), {pSignature, ulSignatureLen}, false);
    if (status == 0) return CKR_OK;
    return call.refuse(CKR_SIGNATURE_INVALID, "verify failed ", status);
  });
}
