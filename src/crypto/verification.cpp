// C_VerifyInit, C_Verify, C_VerifyUpdate and C_VerifyFinal.
#include <utility>

#include "crypto/der.h"
#include "crypto/device_hash.h"
#include "crypto/firmware_gate.h"
#include "crypto/signature_parts.h"
#include "objects/object_store.h"
#include "sessions/session_call.h"

namespace tavrin {
namespace {

constexpr std::uint8_t derSequence = 0x30;

struct Signature {
  CK_BYTE_PTR bytes;
  CK_ULONG length;
};

// An EC point or a key that is DER already goes to the device as it is, a bare modulus in a SubjectPublicKeyInfo.
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

// Asks the device and ends the operation whatever it answers; returns its status, 0 for a valid signature.
int verifyInput(Session& session, ByteView input, ByteView key, Signature signature, bool pss) {
  session.activeOperation = Operation::none;
  return tavrin_verifySignatureHash(session.operationKey->keyType, session.deviceId(), input.data(),
                                    deviceLength(static_cast<CK_ULONG>(input.size())), key.data(),
                                    static_cast<int>(key.size()), signature.bytes, deviceLength(signature.length),
                                    libraryInstance, pss);
}

CK_RV verifyMessage(const Call& call, Session& session, const Mechanism& mechanism, ByteView message,
                    Signature signature) {
  Digest digest;
  ByteView input = message;
  if (mechanism.hash != HashCode::none) {
    static constexpr const char* failures[] = {
        "", "initHash failed ret=", "updateHash failed ret=", "finalHash failed ret="};
    const HashFailure failure =
        hashMessage(session, mechanism.hash, message.data(), static_cast<CK_ULONG>(message.size()), digest);
    if (failure.step != HashFailure::none) {
      return endFailed(session, call.refuse(CKR_FUNCTION_FAILED, failures[failure.step], failure.status));
    }
    input = digest.bytes();
  }
  const auto key = preparePublicKey(*session.operationKey);
  const int status = verifyInput(session, input, key, signature, session.operationFlag);
  if (status == 0) return CKR_OK;
  return call.refuseBare(CKR_SIGNATURE_INVALID, "Verify signature failed : ", status);
}

// The hash over the parts of the message, which is not always the one of C_Verify; none for parts that are gathered.
HashCode hashOfParts(const Session& session) {
  const Mechanism* mechanism = findMechanism(session.mechanism, CKF_VERIFY);
  return mechanism ? mechanism->hashWhenVerifyingInParts : HashCode::none;
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

    session.mechanism = type;
    session.operationFlag = mechanism->pss;
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
    const Mechanism* mechanism = findMechanism(session.mechanism, CKF_VERIFY);
    if (!mechanism) return endFailed(session, CKR_MECHANISM_INVALID);

    return verifyMessage(call, session, *mechanism, {pData, static_cast<std::size_t>(ulDataLen)},
                         {pSignature, ulSignatureLen});
  });
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return sessionCall("C_VerifyUpdate", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::verification) return refuseNotInitialized(call, session);
    if (!pPart || ulPartLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
    }
    return takePart(call, session, hashOfParts(session), {pPart, static_cast<std::size_t>(ulPartLen)});
  });
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen) {
  return sessionCall("C_VerifyFinal", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::verification) return refuseNotInitialized(call, session);
    if (!pSignature || ulSignatureLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=", ulSignatureLen);
    }

    if (hashOfParts(session) != HashCode::none) {
      const CK_RV refusal = finishParts(call, session);
      if (refusal != CKR_OK) return refusal;
    }
    // In parts, the device gets the key as it is stored and no word of PSS: it has only ever been asked so.
    const SecretBytes input = std::exchange(session.digestData, {});
    const int status =
        verifyInput(session, input, publicKey(*session.operationKey), {pSignature, ulSignatureLen}, false);
    if (status == 0) return CKR_OK;
    return call.refuse(CKR_SIGNATURE_INVALID, "verify failed ", status);
  });
}
