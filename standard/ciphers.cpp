// C_EncryptInit, C_Encrypt, C_EncryptUpdate, C_EncryptFinal and the four functions of decryption. RSA encrypts one
// block, so parts are collected until the end and produce nothing before it.
#include "standard/key_use.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

constexpr std::size_t oaepOverhead = 42;  // with SHA-1

constexpr KeyUse encryption{&Session::encryption, CKF_ENCRYPT, CKA_ENCRYPT};
constexpr KeyUse decryption{&Session::decryption, CKF_DECRYPT, CKA_DECRYPT};

// Without a buffer the call is a query, and the caller passes the part again.
CK_RV addPart(const UseCall& use, ByteView part, const CK_BYTE* out, CK_ULONG& outLength, CK_RV tooLong) {
  KeyOperation& operation = use.operation;
  outLength = 0;
  if (!out) return use.end.goOn();
  operation.inParts = true;
  if (part.size() > operation.resultLength - std::min(operation.resultLength, operation.collected.size())) {
    throw Refusal(tooLong, "more data than the key takes, length=", part.size());
  }
  operation.collected.insert(operation.collected.end(), part.begin(), part.end());
  return use.end.goOn();
}

// The result of C_Encrypt or C_Decrypt of the module.
SecretBytes compute(const UseCall& use, bool encrypting, ByteView data) {
  const ModuleLibrary& module = use.state.module;
  const auto init = encrypting ? module->C_EncryptInit : module->C_DecryptInit;
  const auto work = encrypting ? module->C_Encrypt : module->C_Decrypt;
  SecretBytes result(maximumResultLength);
  auto length = static_cast<CK_ULONG>(result.size());
  useKey(use.state, use.operation, init, use.operation.mechanism.type,
         encrypting ? CKR_FUNCTION_FAILED : CKR_ENCRYPTED_DATA_INVALID, [&](CK_SESSION_HANDLE session) {
           return work(session, const_cast<CK_BYTE_PTR>(data.data()), static_cast<CK_ULONG>(data.size()), result.data(),
                       &length);
         });
  result.resize(length);
  return result;
}

CK_RV deliverCiphertext(const UseCall& use, ByteView data, CK_BYTE_PTR out, CK_ULONG& length) {
  return use.end.deliver(use.call, use.operation.resultLength, out, length, [&] {
    const std::size_t overhead = use.operation.mechanism.type == CKM_RSA_PKCS_OAEP ? oaepOverhead : pkcs1Overhead;
    // The device encrypts no empty data.
    if (data.empty() || data.size() + overhead > use.operation.resultLength) {
      throw Refusal(CKR_DATA_LEN_RANGE, "the key cannot encrypt data of length=", data.size());
    }
    SecretBytes result = compute(use, true, data);
    if (result.size() == use.operation.resultLength) return result;
    throw Refusal(CKR_DEVICE_ERROR, "a ciphertext of unexpected length=", result.size());
  });
}

// A plaintext's length is known only when it is decrypted, so a buffer that is shorter than the key is not refused
// before. If the plaintext does not fit, it is wiped, and decrypted again by the next call.
CK_RV deliverPlaintext(const UseCall& use, ByteView data, CK_BYTE_PTR out, CK_ULONG& length) {
  SecretBytes plaintext(use.operation.resultLength);
  if (out && data.size() != use.operation.resultLength) {
    throw Refusal(CKR_ENCRYPTED_DATA_LEN_RANGE, "the key cannot decrypt data of length=", data.size());
  }
  if (out) plaintext = compute(use, false, data);
  return use.end.deliver(use.call, plaintext.size(), out, length, [&]() -> const SecretBytes& { return plaintext; });
}

}  // namespace

CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return beginUse("C_EncryptInit", hSession, encryption, pMechanism, hKey);
}

CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pEncryptedData,
                CK_ULONG_PTR pulEncryptedDataLen) {
  return useCall("C_Encrypt", hSession, encryption, Data::inOneCall, [&](const UseCall& use) -> CK_RV {
    const ByteView data = requiredData(pData, ulDataLen);
    return deliverCiphertext(use, data, pEncryptedData, requiredLength(pulEncryptedDataLen));
  });
}

CK_RV C_EncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen, CK_BYTE_PTR pEncryptedPart,
                      CK_ULONG_PTR pulEncryptedPartLen) {
  return useCall("C_EncryptUpdate", hSession, encryption, Data::inParts, [&](const UseCall& use) -> CK_RV {
    const ByteView part = requiredData(pPart, ulPartLen);
    return addPart(use, part, pEncryptedPart, requiredLength(pulEncryptedPartLen), CKR_DATA_LEN_RANGE);
  });
}

CK_RV C_EncryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastEncryptedPart, CK_ULONG_PTR pulLastEncryptedPartLen) {
  return useCall("C_EncryptFinal", hSession, encryption, Data::inParts, [&](const UseCall& use) -> CK_RV {
    return deliverCiphertext(use, use.operation.collected, pLastEncryptedPart, requiredLength(pulLastEncryptedPartLen));
  });
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return beginUse("C_DecryptInit", hSession, decryption, pMechanism, hKey);
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData,
                CK_ULONG_PTR pulDataLen) {
  return useCall("C_Decrypt", hSession, decryption, Data::inOneCall, [&](const UseCall& use) -> CK_RV {
    const ByteView data = requiredData(pEncryptedData, ulEncryptedDataLen);
    return deliverPlaintext(use, data, pData, requiredLength(pulDataLen));
  });
}

CK_RV C_DecryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart, CK_ULONG ulEncryptedPartLen,
                      CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen) {
  return useCall("C_DecryptUpdate", hSession, decryption, Data::inParts, [&](const UseCall& use) -> CK_RV {
    const ByteView part = requiredData(pEncryptedPart, ulEncryptedPartLen);
    return addPart(use, part, pPart, requiredLength(pulPartLen), CKR_ENCRYPTED_DATA_LEN_RANGE);
  });
}

CK_RV C_DecryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastPart, CK_ULONG_PTR pulLastPartLen) {
  return useCall("C_DecryptFinal", hSession, decryption, Data::inParts, [&](const UseCall& use) -> CK_RV {
    return deliverPlaintext(use, use.operation.collected, pLastPart, requiredLength(pulLastPartLen));
  });
}
