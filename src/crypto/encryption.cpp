// C_EncryptInit, C_Encrypt, C_DecryptInit and C_Decrypt.
#include "crypto/der.h"
#include "crypto/firmware_gate.h"
#include "crypto/mechanisms.h"
#include "crypto/result_delivery.h"
#include "objects/object_handles.h"
#include "sessions/refusals.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

// All other keys are used as RSA 2048.
EncryptionType encryptionType(std::uint32_t keyType) {
  const KeyTypeInfo* row = findKeyType(keyType);
  return row && row->algorithm == KeyAlgorithm::rsa ? EncryptionType{row->encryption} : EncryptionType::rsa2048;
}

PaddingMode paddingMode(CK_MECHANISM_TYPE mechanism) {
  return mechanism == CKM_RSA_PKCS_OAEP ? PaddingMode::oaep : PaddingMode::pkcs1;
}

bool mayBegin(const Session& session) {
  return session.activeOperation == Operation::none || session.activeOperation == Operation::digest;
}

// Begins the operation, or enters the state of one that was begun during a digest.
void begin(Session& session, const TavrinKeyPair* keyPair, Operation operation, Operation duringDigest) {
  session.operationKey = keyPair;
  wipeAndFree(session.result);
  session.activeOperation = session.activeOperation == Operation::none ? operation : duringDigest;
}

// The key pair for an encryption with OAEP, or the refusal. The handle must be a public key's.
CK_RV findOaepEncryptionKey(const Call& call, const Session& session, CK_OBJECT_HANDLE hKey,
                            const TavrinKeyPair*& keyPair) {
  if (!firmwareHasPssAndOaep(session)) {
    return call.refuse(CKR_MECHANISM_INVALID, "CKM_RSA_PKCS_OAEP not supported on firmware ",
                       session.device.firmwareVersion);
  }
  if (hKey < publicKeyBase) {
    return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid hKey=", hKey, " for CKM_RSA_PKCS_OAEP");
  }
  keyPair = resolveKeyPair(session, hKey, publicKeyBase);
  if (keyPair) return CKR_OK;
  return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid input handle for OAEP encrypt : ", hKey);
}

// The same for PKCS#1 v1.5. The handle may be that of either half.
CK_RV findPkcs1EncryptionKey(const Call& call, const Session& session, const CK_MECHANISM& mechanism,
                             CK_OBJECT_HANDLE hKey, const TavrinKeyPair*& keyPair) {
  if (hasParameter(mechanism)) {
    const CK_MECHANISM_TYPE type = mechanism.mechanism;
    return call.refuse(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=", type);
  }
  if (hKey < privateKeyBase) return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid hKey=", hKey);
  keyPair = resolveKeyPair(session, hKey, hKey >= publicKeyBase ? publicKeyBase : privateKeyBase);
  if (keyPair) return CKR_OK;
  return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in encrypt : ", hKey);
}

CK_RV findOaepDecryptionKey(const Call& call, const Session& session, CK_OBJECT_HANDLE hKey,
                            const TavrinKeyPair*& keyPair) {
  if (!firmwareHasPssAndOaep(session)) {
    return call.refuseBare(CKR_MECHANISM_INVALID, "CKM_RSA_PKCS_OAEP not supported on firmware ",
                           session.device.firmwareVersion);
  }
  if (hKey < privateKeyBase) {
    return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid hKey=", hKey, " for CKM_RSA_PKCS_OAEP");
  }
  keyPair = resolveKeyPair(session, hKey, privateKeyBase);
  if (keyPair) return CKR_OK;
  return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in decrypt OAEP : ", hKey);
}

CK_RV findPkcs1DecryptionKey(const Call& call, const Session& session, const CK_MECHANISM& mechanism,
                             CK_OBJECT_HANDLE hKey, const TavrinKeyPair*& keyPair) {
  if (hasParameter(mechanism)) {
    return call.refuse(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for CKM_RSA_PKCS");
  }
  if (hKey < privateKeyBase) {
    return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid hKey=", hKey, " for CKM_RSA_PKCS");
  }
  keyPair = resolveKeyPair(session, hKey, privateKeyBase);
  if (keyPair) return CKR_OK;
  return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in decrypt : ", hKey);
}

// Encrypts and keeps the ciphertext in the session. A failure ends the operation.
CK_RV encrypt(const Call& call, Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen) {
  const TavrinKeyPair& keyPair = *session.operationKey;
  const auto key = rsaSubjectPublicKeyInfo(publicKey(keyPair));
  std::uint8_t ciphertext[maximumSignatureLength] = {};
  int length = 0;
  const int status = tavrin_encrypt(encryptionType(keyPair.keyType), paddingMode(session.mechanism->type), pData,
                                    deviceLength(ulDataLen), ciphertext, &length, key.data(),
                                    static_cast<int>(key.size()), libraryInstance);
  if (status != 0) {
    session.activeOperation = Operation::none;
    return call.refuseBare(CKR_FUNCTION_FAILED, "Encrypt data failed : ", status);
  }
  session.result.assign(ciphertext, ciphertext + returnedLength(length, sizeof ciphertext));
  return CKR_OK;
}

// Decrypts and keeps the plaintext in the session. After a failure the caller may try again.
CK_RV decrypt(const Call& call, Session& session, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen) {
  const TavrinKeyPair& keyPair = *session.operationKey;
  std::uint8_t* plaintext = nullptr;
  int length = 0;
  const int status =
      tavrin_decrypt(session.deviceId(), keyPair.recordId, userPassword.copy().text(), pEncryptedData,
                     deviceLength(ulEncryptedDataLen), &plaintext, &length, deviceFlag(keyPair), libraryInstance);
  if (status != 0) return call.refuseBare(CKR_FUNCTION_FAILED, "Dacrypt data failed : ", status);
  if (plaintext && isTooLong(length)) return call.refuse(CKR_FUNCTION_FAILED, "plaintext too long, length=", length);
  if (plaintext && length > 0) session.result.assign(plaintext, plaintext + length);
  return CKR_OK;
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_EncryptInit", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (!mayBegin(session)) return refuseActive(call, session);
    if (!pMechanism) return call.refuse(CKR_ARGUMENTS_BAD, "pMechanism is NULL");
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    const Mechanism* mechanism = findMechanism(type, CKF_ENCRYPT);
    if (!mechanism) return call.refuse(CKR_MECHANISM_INVALID, "unsupported mechanism=", type);
    const TavrinKeyPair* keyPair = nullptr;
    const CK_RV refusal = type == CKM_RSA_PKCS_OAEP ? findOaepEncryptionKey(call, session, hKey, keyPair)
                                                    : findPkcs1EncryptionKey(call, session, *pMechanism, hKey, keyPair);
    if (refusal != CKR_OK) return refusal;

    session.mechanism = mechanism;
    begin(session, keyPair, Operation::encryption, Operation::encryptionDuringDigest);
    return CKR_OK;
  });
}

CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pEncryptedData,
                CK_ULONG_PTR pulEncryptedDataLen) {
  return sessionCall("C_Encrypt", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::encryption) return refuseNotInitialized(call, session);
    if (!pData || ulDataLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pData is NULL or ulDataLen<=0, ulDataLen=", ulDataLen);
    }
    if (!pulEncryptedDataLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulEncryptedDataLen is NULL");

    if (session.result.empty()) {
      const CK_RV refusal = encrypt(call, session, pData, ulDataLen);
      if (refusal != CKR_OK) return refusal;
    }
    return deliverResult(call, session, pEncryptedData, pulEncryptedDataLen);
  });
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_DecryptInit", hSession, [&](const Call& call, Session& session) -> CK_RV {
    const CK_STATE state = session.state;
    if (state == CKS_RO_PUBLIC_SESSION) return refuseState(call, state);
    if (!mayBegin(session)) return refuseActive(call, session);
    if (!pMechanism) return call.refuse(CKR_ARGUMENTS_BAD, "pMechanism is NULL");
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    if (!findMechanism(type, CKF_DECRYPT)) return call.refuse(CKR_MECHANISM_INVALID, "unsupported mechanism=", type);
    const TavrinKeyPair* keyPair = nullptr;
    const CK_RV refusal = type == CKM_RSA_PKCS_OAEP ? findOaepDecryptionKey(call, session, hKey, keyPair)
                                                    : findPkcs1DecryptionKey(call, session, *pMechanism, hKey, keyPair);
    if (refusal != CKR_OK) return refusal;

    // The padding is not kept: the device recognises it.
    begin(session, keyPair, Operation::decryption, Operation::decryptionDuringDigest);
    return CKR_OK;
  });
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData,
                CK_ULONG_PTR pulDataLen) {
  return sessionCall("C_Decrypt", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::decryption) return refuseNotInitialized(call, session);
    if (!pEncryptedData) return call.refuse(CKR_ARGUMENTS_BAD, "pEncryptedData is NULL");
    if (ulEncryptedDataLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "ulEncryptedDataLen<=0, ulEncryptedDataLen=", ulEncryptedDataLen);
    }
    if (!pulDataLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulDataLen is NULL");

    if (session.result.empty()) {
      const CK_RV refusal = decrypt(call, session, pEncryptedData, ulEncryptedDataLen);
      if (refusal != CKR_OK) return refusal;
    }
    return deliverResult(call, session, pData, pulDataLen);
  });
}
