// C_EncryptInit, C_Encrypt, C_EncryptUpdate, C_EncryptFinal and the four functions of decryption. RSA encrypts one
// block, so parts are collected until the end and produce nothing before it.
#include <cstring>

#include "standard/key_use.h"
#include "standard/output.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

constexpr std::size_t pkcs1Overhead = 11;
constexpr std::size_t oaepOverhead = 42;  // with SHA-1

// The device's OAEP: SHA-1 for hash and mask, no label.
void checkOaepParameters(const CK_MECHANISM& given) {
  const Refusal refusal(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for CKM_RSA_PKCS_OAEP");
  if (!given.pParameter || given.ulParameterLen != sizeof(CK_RSA_PKCS_OAEP_PARAMS)) throw refusal;
  CK_RSA_PKCS_OAEP_PARAMS parameters;
  std::memcpy(&parameters, given.pParameter, sizeof parameters);
  const bool noLabel = parameters.ulSourceDataLen == 0 &&
                       (parameters.source == CKZ_DATA_SPECIFIED || (parameters.source == 0 && !parameters.pSourceData));
  if (parameters.hashAlg != CKM_SHA_1 || parameters.mgf != CKG_MGF1_SHA1 || !noLabel) throw refusal;
}

CK_RV begin(const Call& call, State& state, Session& session, std::unique_ptr<CipherOperation>& operation,
            const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey, bool encrypting) {
  const CK_MECHANISM& given = requiredMechanism(pMechanism);
  if (operation && !operation->isOver()) return call.refuse(CKR_OPERATION_ACTIVE, "the operation is active");
  const Mechanism& mechanism =
      requiredMechanism(given.mechanism, encrypting ? CKF_ENCRYPT : CKF_DECRYPT, session.token);
  if (mechanism.type == CKM_RSA_PKCS_OAEP) {
    checkOaepParameters(given);
  } else {
    requireNoParameter(given);
  }
  ModuleLock module(state);
  auto key = requiredKey(module, session, hKey, mechanism, encrypting ? CKA_ENCRYPT : CKA_DECRYPT);
  if (key->moduleHandle == 0) return call.refuse(CKR_KEY_FUNCTION_NOT_PERMITTED, "not on the token, hKey=", hKey);
  operation = std::make_unique<CipherOperation>(mechanism, std::move(key));
  operation->resultLength = resultLengthOf(*operation->key);
  return CKR_OK;
}

bool isReady(const std::unique_ptr<CipherOperation>& operation, bool inParts) {
  return operation && !operation->isOver() && (inParts || !operation->inParts);
}

// Without a buffer the call is a query, and the part comes again.
CK_RV addPart(CipherOperation& operation, ByteView part, const CK_BYTE* out, CK_ULONG& outLength, CK_RV tooLong) {
  outLength = 0;
  if (!out) return CKR_OK;
  operation.inParts = true;
  if (part.size() > operation.resultLength - std::min(operation.resultLength, operation.collected.size())) {
    throw Refusal(tooLong, "more data than the key takes, length=", part.size());
  }
  operation.collected.insert(operation.collected.end(), part.begin(), part.end());
  return CKR_OK;
}

SecretBytes encrypt(State& state, CipherOperation& operation, ByteView data) {
  const std::size_t overhead = operation.mechanism.type == CKM_RSA_PKCS_OAEP ? oaepOverhead : pkcs1Overhead;
  // The device encrypts no empty data.
  if (data.empty() || data.size() + overhead > operation.resultLength) {
    throw Refusal(CKR_DATA_LEN_RANGE, "the key cannot encrypt data of length=", data.size());
  }
  CK_MECHANISM mechanism{operation.mechanism.type, nullptr, 0};
  SecretBytes result(1024);
  auto length = static_cast<CK_ULONG>(result.size());
  useKey(state, operation, "C_Encrypt", CKR_FUNCTION_FAILED, [&](CK_SESSION_HANDLE session) -> CK_RV {
    const CK_RV code = state.module->C_EncryptInit(session, &mechanism, operation.key->moduleHandle);
    if (code != CKR_OK) return code;
    return state.module->C_Encrypt(session, const_cast<CK_BYTE_PTR>(data.data()), static_cast<CK_ULONG>(data.size()),
                                   result.data(), &length);
  });
  if (length != operation.resultLength) throw Refusal(CKR_DEVICE_ERROR, "a ciphertext of unexpected length=", length);
  result.resize(length);
  return result;
}

SecretBytes decrypt(State& state, CipherOperation& operation, ByteView data) {
  if (data.size() != operation.resultLength) {
    throw Refusal(CKR_ENCRYPTED_DATA_LEN_RANGE, "the key cannot decrypt data of length=", data.size());
  }
  CK_MECHANISM mechanism{operation.mechanism.type, nullptr, 0};
  SecretBytes result(4096);
  auto length = static_cast<CK_ULONG>(result.size());
  useKey(state, operation, "C_Decrypt", CKR_ENCRYPTED_DATA_INVALID, [&](CK_SESSION_HANDLE session) -> CK_RV {
    const CK_RV code = state.module->C_DecryptInit(session, &mechanism, operation.key->moduleHandle);
    if (code != CKR_OK) return code;
    return state.module->C_Decrypt(session, const_cast<CK_BYTE_PTR>(data.data()), static_cast<CK_ULONG>(data.size()),
                                   result.data(), &length);
  });
  result.resize(length);
  return result;
}

// A plaintext's length is known only when it is decrypted, so a buffer that is shorter than the key is not refused
// before. If the plaintext does not fit, it is wiped, and decrypted again by the next call.
CK_RV deliverPlaintext(const Call& call, State& state, OperationEnd<CipherOperation>& end, CipherOperation& operation,
                       ByteView data, CK_BYTE_PTR out, CK_ULONG& length) {
  if (!out && !hasRoom(call, end, operation.resultLength, out, length)) return end.code();
  const SecretBytes plaintext = decrypt(state, operation, data);
  if (!hasRoom(call, end, plaintext.size(), out, length)) return end.code();
  return deliver(plaintext, out, length);
}

}  // namespace

CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_EncryptInit", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    return begin(call, state, session, session.encryption, pMechanism, hKey, true);
  });
}

CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pEncryptedData,
                CK_ULONG_PTR pulEncryptedDataLen) {
  return sessionCall("C_Encrypt", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.encryption);
    if (!isReady(session.encryption, false)) return refuseNotInitialized(call);
    const ByteView data = requiredData(pData, ulDataLen);
    if (!pulEncryptedDataLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulEncryptedDataLen is NULL");
    CipherOperation& operation = *session.encryption;
    if (!hasRoom(call, end, operation.resultLength, pEncryptedData, *pulEncryptedDataLen)) return end.code();
    return deliver(encrypt(state, operation, data), pEncryptedData, *pulEncryptedDataLen);
  });
}

CK_RV C_EncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen, CK_BYTE_PTR pEncryptedPart,
                      CK_ULONG_PTR pulEncryptedPartLen) {
  return sessionCall("C_EncryptUpdate", hSession, [&](const Call& call, State&, Session& session) -> CK_RV {
    OperationEnd end(session.encryption);
    if (!isReady(session.encryption, true)) return refuseNotInitialized(call);
    const ByteView part = requiredData(pPart, ulPartLen);
    if (!pulEncryptedPartLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulEncryptedPartLen is NULL");
    return end.goOn(addPart(*session.encryption, part, pEncryptedPart, *pulEncryptedPartLen, CKR_DATA_LEN_RANGE));
  });
}

CK_RV C_EncryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastEncryptedPart, CK_ULONG_PTR pulLastEncryptedPartLen) {
  return sessionCall("C_EncryptFinal", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.encryption);
    if (!isReady(session.encryption, true)) return refuseNotInitialized(call);
    if (!pulLastEncryptedPartLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulLastEncryptedPartLen is NULL");
    CipherOperation& operation = *session.encryption;
    if (!hasRoom(call, end, operation.resultLength, pLastEncryptedPart, *pulLastEncryptedPartLen)) return end.code();
    return deliver(encrypt(state, operation, operation.collected), pLastEncryptedPart, *pulLastEncryptedPartLen);
  });
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_DecryptInit", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    return begin(call, state, session, session.decryption, pMechanism, hKey, false);
  });
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData,
                CK_ULONG_PTR pulDataLen) {
  return sessionCall("C_Decrypt", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.decryption);
    if (!isReady(session.decryption, false)) return refuseNotInitialized(call);
    const ByteView data = requiredData(pEncryptedData, ulEncryptedDataLen);
    if (!pulDataLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulDataLen is NULL");
    return deliverPlaintext(call, state, end, *session.decryption, data, pData, *pulDataLen);
  });
}

CK_RV C_DecryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart, CK_ULONG ulEncryptedPartLen,
                      CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen) {
  return sessionCall("C_DecryptUpdate", hSession, [&](const Call& call, State&, Session& session) -> CK_RV {
    OperationEnd end(session.decryption);
    if (!isReady(session.decryption, true)) return refuseNotInitialized(call);
    const ByteView part = requiredData(pEncryptedPart, ulEncryptedPartLen);
    if (!pulPartLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulPartLen is NULL");
    return end.goOn(addPart(*session.decryption, part, pPart, *pulPartLen, CKR_ENCRYPTED_DATA_LEN_RANGE));
  });
}

CK_RV C_DecryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastPart, CK_ULONG_PTR pulLastPartLen) {
  return sessionCall("C_DecryptFinal", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.decryption);
    if (!isReady(session.decryption, true)) return refuseNotInitialized(call);
    if (!pulLastPartLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulLastPartLen is NULL");
    CipherOperation& operation = *session.decryption;
    return deliverPlaintext(call, state, end, operation, operation.collected, pLastPart, *pulLastPartLen);
  });
}
