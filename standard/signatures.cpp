// C_SignInit, C_Sign, C_SignUpdate, C_SignFinal and the four functions of verification.
//
// The module's raw mechanisms take 20, 32, 48 or 64 bytes for a digest, of which the token builds the signature that
// the hashing mechanisms make. So data in parts are hashed first; and such data of an application's own, given to
// CKM_RSA_PKCS, are refused, as the signature would be one of something else.
#include <cstring>

#include "standard/key_use.h"
#include "standard/output.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

// The module counts in 32 bits with a sign. Longer data are hashed in parts.
constexpr std::size_t longestForModule = std::size_t{1} << 30;
constexpr std::size_t pkcs1Overhead = 11;

// The length of the digest that PSS is to sign, after its parameters have been compared with what the device does: the
// mask is made with the same hash, and the salt is as long as the digest.
std::size_t checkPssParameters(const CK_MECHANISM& given, const Mechanism& mechanism) {
  const CK_MECHANISM_TYPE type = given.mechanism;
  const Refusal refusal(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=", type);
  if (!given.pParameter || given.ulParameterLen != sizeof(CK_RSA_PKCS_PSS_PARAMS)) throw refusal;
  CK_RSA_PKCS_PSS_PARAMS parameters;
  std::memcpy(&parameters, given.pParameter, sizeof parameters);
  const HashMechanism* hash = findHash(parameters.hashAlg);
  if (!hash || parameters.mgf != hash->mgf || parameters.sLen != hash->length) throw refusal;
  if (mechanism.hash && mechanism.hash != hash) throw refusal;
  return hash->length;
}

CK_RV begin(const Call& call, State& state, Session& session, std::unique_ptr<SignatureOperation>& operation,
            const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey, bool signing) {
  const CK_MECHANISM& given = requiredMechanism(pMechanism);
  if (operation && !operation->isOver()) return call.refuse(CKR_OPERATION_ACTIVE, "the operation is active");
  const Mechanism& mechanism = requiredMechanism(given.mechanism, signing ? CKF_SIGN : CKF_VERIFY, session.token);
  std::size_t digestLength = 0;
  if (mechanism.isPss()) {
    digestLength = checkPssParameters(given, mechanism);
  } else {
    requireNoParameter(given);
  }
  ModuleLock module(state);
  auto key = requiredKey(module, session, hKey, mechanism, signing ? CKA_SIGN : CKA_VERIFY);
  if (key->moduleHandle == 0) return call.refuse(CKR_KEY_FUNCTION_NOT_PERMITTED, "not on the token, hKey=", hKey);
  const std::size_t resultLength = resultLengthOf(*key);
  if (digestLength != 0 && resultLength < 2 * digestLength + 2) {
    return call.refuse(CKR_KEY_SIZE_RANGE, "the key is too short for this hash, hKey=", hKey);
  }
  operation = std::make_unique<SignatureOperation>(mechanism, std::move(key));
  operation->resultLength = resultLength;
  operation->digestLength = digestLength;
  return CKR_OK;
}

void checkRawLength(const SignatureOperation& operation, std::size_t length) {
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
      if (length > longestForModule) throw refusal;
      break;
    default:
      break;
  }
}

void addPart(State& state, SignatureOperation& operation, ByteView part) {
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
  CK_MECHANISM mechanism;
  SecretBytes digest;
  ByteView bytes;
};

Input prepare(State& state, SignatureOperation& operation, ByteView data) {
  Input input{{operation.mechanism.type, nullptr, 0}, {}, data};
  if (!operation.mechanism.hash) {
    if (operation.inParts) input.bytes = operation.collected;
    checkRawLength(operation, input.bytes.size());
    return input;
  }
  // The module takes no empty data.
  if (!operation.inParts && !data.empty() && data.size() <= longestForModule) return input;
  addPart(state, operation, data);
  input.digest = operation.hash->finish();
  input.bytes = input.digest;
  input.mechanism.mechanism = operation.mechanism.raw;
  return input;
}

std::vector<std::uint8_t> sign(State& state, SignatureOperation& operation, ByteView data) {
  Input input = prepare(state, operation, data);
  std::vector<std::uint8_t> signature(1024);
  auto length = static_cast<CK_ULONG>(signature.size());
  useKey(state, operation, "C_Sign", CKR_FUNCTION_FAILED, [&](CK_SESSION_HANDLE session) -> CK_RV {
    const CK_RV code = state.module->C_SignInit(session, &input.mechanism, operation.key->moduleHandle);
    if (code != CKR_OK) return code;
    // Without a part before it, C_SignFinal signs raw data that are empty.
    if (input.bytes.empty()) return state.module->C_SignFinal(session, signature.data(), &length);
    return state.module->C_Sign(session, const_cast<CK_BYTE_PTR>(input.bytes.data()),
                                static_cast<CK_ULONG>(input.bytes.size()), signature.data(), &length);
  });
  if (length != operation.resultLength) throw Refusal(CKR_DEVICE_ERROR, "a signature of unexpected length=", length);
  signature.resize(length);
  return signature;
}

CK_RV verify(State& state, SignatureOperation& operation, ByteView data, ByteView signature) {
  Input input = prepare(state, operation, data);
  if (signature.size() != operation.resultLength) {
    throw Refusal(CKR_SIGNATURE_LEN_RANGE, "the signature has length=", signature.size());
  }
  auto* proof = const_cast<CK_BYTE_PTR>(signature.data());
  const auto length = static_cast<CK_ULONG>(signature.size());
  useKey(state, operation, "C_Verify", CKR_SIGNATURE_INVALID, [&](CK_SESSION_HANDLE session) -> CK_RV {
    const CK_RV code = state.module->C_VerifyInit(session, &input.mechanism, operation.key->moduleHandle);
    if (code != CKR_OK) return code;
    if (input.bytes.empty()) return state.module->C_VerifyFinal(session, proof, length);
    return state.module->C_Verify(session, const_cast<CK_BYTE_PTR>(input.bytes.data()),
                                  static_cast<CK_ULONG>(input.bytes.size()), proof, length);
  });
  return CKR_OK;
}

bool isReady(const std::unique_ptr<SignatureOperation>& operation, bool inParts) {
  return operation && !operation->isOver() && (inParts || !operation->inParts);
}

}  // namespace

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_SignInit", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    return begin(call, state, session, session.signing, pMechanism, hKey, true);
  });
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
             CK_ULONG_PTR pulSignatureLen) {
  return sessionCall("C_Sign", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.signing);
    if (!isReady(session.signing, false)) return refuseNotInitialized(call);
    const ByteView data = requiredData(pData, ulDataLen);
    if (!pulSignatureLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulSignatureLen is NULL");
    if (!hasRoom(call, end, session.signing->resultLength, pSignature, *pulSignatureLen)) return end.code();
    return deliver(sign(state, *session.signing, data), pSignature, *pulSignatureLen);
  });
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return sessionCall("C_SignUpdate", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.signing);
    if (!isReady(session.signing, true)) return refuseNotInitialized(call);
    addPart(state, *session.signing, requiredData(pPart, ulPartLen));
    return end.goOn();
  });
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen) {
  return sessionCall("C_SignFinal", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.signing);
    if (!isReady(session.signing, true)) return refuseNotInitialized(call);
    if (!pulSignatureLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulSignatureLen is NULL");
    if (!hasRoom(call, end, session.signing->resultLength, pSignature, *pulSignatureLen)) return end.code();
    session.signing->inParts = true;
    return deliver(sign(state, *session.signing, {}), pSignature, *pulSignatureLen);
  });
}

CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_VerifyInit", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    return begin(call, state, session, session.verification, pMechanism, hKey, false);
  });
}

CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
               CK_ULONG ulSignatureLen) {
  return sessionCall("C_Verify", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    const OperationEnd end(session.verification);
    if (!isReady(session.verification, false)) return refuseNotInitialized(call);
    const ByteView data = requiredData(pData, ulDataLen);
    if (!pSignature) return call.refuse(CKR_ARGUMENTS_BAD, "pSignature is NULL");
    return verify(state, *session.verification, data, requiredData(pSignature, ulSignatureLen));
  });
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return sessionCall("C_VerifyUpdate", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.verification);
    if (!isReady(session.verification, true)) return refuseNotInitialized(call);
    addPart(state, *session.verification, requiredData(pPart, ulPartLen));
    return end.goOn();
  });
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen) {
  return sessionCall("C_VerifyFinal", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    const OperationEnd end(session.verification);
    if (!isReady(session.verification, true)) return refuseNotInitialized(call);
    if (!pSignature) return call.refuse(CKR_ARGUMENTS_BAD, "pSignature is NULL");
    session.verification->inParts = true;
    return verify(state, *session.verification, {}, requiredData(pSignature, ulSignatureLen));
  });
}
