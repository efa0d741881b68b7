// C_SignInit, C_Sign, C_SignUpdate, C_SignFinal and the four functions of verification.
//
// The token treats 20, 32, 48 or 64 bytes as a digest and signs them as the hashing mechanisms do. So data in parts are
// hashed first, and the digest is signed. Raw data of these lengths for CKM_RSA_PKCS are refused, because the signature
// would be that of a digest.
#include "standard/key_use.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

constexpr KeyUse signing{&Session::signing, CKF_SIGN, CKA_SIGN};
constexpr KeyUse verification{&Session::verification, CKF_VERIFY, CKA_VERIFY};

void checkRawLength(const KeyOperation& operation, std::size_t length) {
  const Refusal refusal(CKR_DATA_LEN_RANGE, "the mechanism cannot take data of length=", length);
  switch (operation.mechanism.type) {
    case CKM_RSA_PKCS:
      if (length > operation.resultLength - pkcs1Overhead || length == 20 || length == 32 || length == 48 ||
          length == 64) {
        throw refusal;
      }
      break;
    case CKM_RSA_PKCS_PSS:
      if (length != operation.digestLength) throw refusal;
      break;
    case CKM_ECDSA:
      if (length > longestPiece) throw refusal;
      break;
  }
}

void addPart(State& state, KeyOperation& operation, ByteView part) {
  operation.inParts = true;
  if (!operation.mechanism.hash) {
    operation.collected.insert(operation.collected.end(), part.begin(), part.end());
    return;
  }
  if (!operation.hash) {
    operation.hash = std::make_unique<HashRun>(state, *operation.key->token, *operation.mechanism.hash);
  }
  operation.hash->update(part);
}

// What the module is given: the data and a hashing mechanism, or a digest or raw data and the raw mechanism.
struct Input {
  CK_MECHANISM_TYPE mechanism;
  SecretBytes digest;
  ByteView bytes;
};

Input prepare(State& state, KeyOperation& operation, ByteView data) {
  Input input{operation.mechanism.type, {}, data};
  if (!operation.mechanism.hash) {
    if (operation.inParts) input.bytes = operation.collected;
    checkRawLength(operation, input.bytes.size());
    return input;
  }
  // The module takes no empty data.
  if (!operation.inParts && !data.empty() && data.size() <= longestPiece) return input;
  addPart(state, operation, data);
  input.digest = operation.hash->finish();
  input.bytes = input.digest;
  input.mechanism = operation.mechanism.raw;
  return input;
}

std::vector<std::uint8_t> sign(State& state, KeyOperation& operation, ByteView data) {
  Input input = prepare(state, operation, data);
  std::vector<std::uint8_t> signature(maximumSignatureLength);
  auto length = static_cast<CK_ULONG>(signature.size());
  const ModuleLibrary& module = state.module;
  useKey(state, operation, module->C_SignInit, input.mechanism, CKR_FUNCTION_FAILED, [&](CK_SESSION_HANDLE session) {
    // The module writes fewer lines for data in parts, so it reads the log level less often. C_SignFinal alone signs
    // raw data that are empty.
    const CK_RV code = input.bytes.empty() ? CKR_OK
                                           : module->C_SignUpdate(session, const_cast<CK_BYTE_PTR>(input.bytes.data()),
                                                                  static_cast<CK_ULONG>(input.bytes.size()));
    return code == CKR_OK ? module->C_SignFinal(session, signature.data(), &length) : code;
  });
  if (length != operation.resultLength) throw Refusal(CKR_DEVICE_ERROR, "a signature of unexpected length=", length);
  signature.resize(length);
  return signature;
}

// The two numbers of an ECDSA signature may be shorter than the key's coordinates.
std::vector<std::uint8_t> withLeadingZeros(ByteView signature, std::size_t length) {
  std::vector<std::uint8_t> result(length);
  const std::size_t half = signature.size() / 2;
  std::ranges::copy_backward(signature.first(half), result.begin() + static_cast<std::ptrdiff_t>(length / 2));
  std::ranges::copy_backward(signature.last(half), result.end());
  return result;
}

CK_RV verify(State& state, KeyOperation& operation, ByteView data, ByteView signature) {
  Input input = prepare(state, operation, data);
  std::vector<std::uint8_t> full;
  const bool isShort = !signature.empty() && signature.size() % 2 == 0 && signature.size() < operation.resultLength;
  if (operation.mechanism.keyType == CKK_EC && isShort) {
    signature = full = withLeadingZeros(signature, operation.resultLength);
  }
  if (signature.size() != operation.resultLength) {
    throw Refusal(CKR_SIGNATURE_LEN_RANGE, "the signature has length=", signature.size());
  }
  auto* proof = const_cast<CK_BYTE_PTR>(signature.data());
  const auto length = static_cast<CK_ULONG>(signature.size());
  const ModuleLibrary& module = state.module;
  useKey(state, operation, module->C_VerifyInit, input.mechanism, CKR_SIGNATURE_INVALID,
         [&](CK_SESSION_HANDLE session) {
           if (input.bytes.empty()) return module->C_VerifyFinal(session, proof, length);
           return module->C_Verify(session, const_cast<CK_BYTE_PTR>(input.bytes.data()),
                                   static_cast<CK_ULONG>(input.bytes.size()), proof, length);
         });
  return CKR_OK;
}

CK_RV update(const char* name, CK_SESSION_HANDLE hSession, const KeyUse& kind, const CK_BYTE* part, CK_ULONG length) {
  return useCall(name, hSession, kind, Data::inParts, [&](const UseCall& use) -> CK_RV {
    addPart(use.state, use.operation, requiredData(part, length));
    return use.end.goOn();
  });
}

}  // namespace

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return beginUse("C_SignInit", hSession, signing, pMechanism, hKey);
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
             CK_ULONG_PTR pulSignatureLen) {
  return useCall("C_Sign", hSession, signing, Data::inOneCall, [&](const UseCall& use) -> CK_RV {
    const ByteView data = requiredData(pData, ulDataLen);
    return use.end.deliver(use.call, use.operation.resultLength, pSignature, requiredLength(pulSignatureLen),
                           [&] { return sign(use.state, use.operation, data); });
  });
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return update("C_SignUpdate", hSession, signing, pPart, ulPartLen);
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen) {
  return useCall("C_SignFinal", hSession, signing, Data::inParts, [&](const UseCall& use) -> CK_RV {
    return use.end.deliver(use.call, use.operation.resultLength, pSignature, requiredLength(pulSignatureLen), [&] {
      use.operation.inParts = true;
      return sign(use.state, use.operation, {});
    });
  });
}

CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return beginUse("C_VerifyInit", hSession, verification, pMechanism, hKey);
}

CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
               CK_ULONG ulSignatureLen) {
  return useCall("C_Verify", hSession, verification, Data::inOneCall, [&](const UseCall& use) -> CK_RV {
    const ByteView data = requiredData(pData, ulDataLen);
    if (!pSignature) return use.call.refuse(CKR_ARGUMENTS_BAD, "pSignature is NULL");
    return verify(use.state, use.operation, data, requiredData(pSignature, ulSignatureLen));
  });
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return update("C_VerifyUpdate", hSession, verification, pPart, ulPartLen);
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen) {
  return useCall("C_VerifyFinal", hSession, verification, Data::inParts, [&](const UseCall& use) -> CK_RV {
    if (!pSignature) return use.call.refuse(CKR_ARGUMENTS_BAD, "pSignature is NULL");
    use.operation.inParts = true;
    return verify(use.state, use.operation, {}, requiredData(pSignature, ulSignatureLen));
  });
}
