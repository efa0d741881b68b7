#include "standard/key_use.h"

#include <cstring>

namespace tavrin::standard {
namespace {

Refusal badParameter(const CK_MECHANISM& given) {
  return Refusal(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=", CK_ULONG{given.mechanism});
}

// The mechanism's parameter as a structure of its own.
template <typename Parameters>
Parameters readParameter(const CK_MECHANISM& given) {
  if (!given.pParameter || given.ulParameterLen != sizeof(Parameters)) throw badParameter(given);
  Parameters parameters;
  std::memcpy(&parameters, given.pParameter, sizeof parameters);
  return parameters;
}

// Compares the parameter with what the device does. Returns the length of the digest that PSS is to sign, or 0.
std::size_t checkParameter(const CK_MECHANISM& given, const Mechanism& mechanism) {
  if (mechanism.isPss()) {  // the mask is made with the same hash, and the salt is as long as the digest
    const auto parameters = readParameter<CK_RSA_PKCS_PSS_PARAMS>(given);
    const HashMechanism* hash = findHash(parameters.hashAlg);
    if (!hash || parameters.mgf != hash->mgf || parameters.sLen != hash->length) throw badParameter(given);
    if (mechanism.hash && mechanism.hash != hash) throw badParameter(given);
    return hash->length;
  }
  if (given.mechanism == CKM_RSA_PKCS_OAEP) {  // SHA-1 for hash and mask, no label
    const auto parameters = readParameter<CK_RSA_PKCS_OAEP_PARAMS>(given);
    const bool specified =
        parameters.source == CKZ_DATA_SPECIFIED || (parameters.source == 0 && !parameters.pSourceData);
    if (parameters.hashAlg != CKM_SHA_1 || parameters.mgf != CKG_MGF1_SHA1) throw badParameter(given);
    if (!specified || parameters.ulSourceDataLen != 0) throw badParameter(given);
    return 0;
  }
  requireNoParameter(given);
  return 0;
}

// The bytes of a signature or ciphertext that this key makes. An EC signature is two numbers as long as a coordinate.
// An EC private key's length is known only from its public key (`identity`).
std::size_t resultLengthOf(const Object& key) {
  if (const SecretBytes* modulus = key.attributes->find(CKA_MODULUS)) return modulus->size();
  return key.identity.size() - 1;
}

}  // namespace

KeyOperation::KeyOperation(const Mechanism& itsMechanism, std::shared_ptr<Object> itsKey)
    : mechanism(itsMechanism), key(std::move(itsKey)), logouts(key->token->logouts) {}

bool KeyOperation::isOver() const { return key->isPrivate && key->token->logouts != logouts; }

std::shared_ptr<Object> requiredKey(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle,
                                    const Mechanism& mechanism, CK_ATTRIBUTE_TYPE use) {
  std::shared_ptr<Object> key = findVisible(module, session, handle);
  if (!key || !key->isKey()) throw Refusal(CKR_KEY_HANDLE_INVALID, "invalid hKey=", handle);
  const Attributes& attributes = knownAttributes(module, *key);
  if (attributes.number(CKA_KEY_TYPE) != mechanism.keyType) {
    throw Refusal(CKR_KEY_TYPE_INCONSISTENT, "the key has another type, hKey=", handle);
  }
  if (!attributes.flag(use)) throw Refusal(CKR_KEY_FUNCTION_NOT_PERMITTED, "not a use of this key, hKey=", handle);
  return key;
}

void checkKey(ModuleLock& module, Object& key) {
  try {
    checkIdentity(module, key);
  } catch (const Refusal& refusal) {
    if (refusal.code() != CKR_OBJECT_HANDLE_INVALID) throw;
    throw Refusal(CKR_KEY_HANDLE_INVALID, refusal.reason());
  }
}

CK_RV beginUse(const char* name, CK_SESSION_HANDLE hSession, const KeyUse& use, const CK_MECHANISM* pMechanism,
               CK_OBJECT_HANDLE hKey) noexcept {
  return sessionCall(name, hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    std::unique_ptr<KeyOperation>& operation = session.*use.operation;
    const CK_MECHANISM& given = requiredMechanism(pMechanism);
    if (operation && !operation->isOver()) return call.refuse(CKR_OPERATION_ACTIVE, "the operation is active");
    const Mechanism& mechanism = requiredMechanism(given.mechanism, use.flag, session.token);
    const std::size_t digestLength = checkParameter(given, mechanism);
    ModuleLock module(state);
    auto key = requiredKey(module, session, hKey, mechanism, use.attribute);
    if (key->moduleHandle == 0) return call.refuse(CKR_KEY_FUNCTION_NOT_PERMITTED, "not on the token, hKey=", hKey);
    const std::size_t resultLength = resultLengthOf(*key);
    if (digestLength != 0 && resultLength < 2 * digestLength + 2) {
      return call.refuse(CKR_KEY_SIZE_RANGE, "the key is too short for this hash, hKey=", hKey);
    }
    operation = std::make_unique<KeyOperation>(mechanism, std::move(key));
    operation->resultLength = resultLength;
    operation->digestLength = digestLength;
    return CKR_OK;
  });
}

}  // namespace tavrin::standard
