// C_DeriveKey: ECDH with the raw secret or the X9.63 key derivation function.
#include <cstring>

#include "standard/key_use.h"
#include "standard/object_changes.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

constexpr std::size_t longestSecret = std::size_t{1} << 20;  // in bytes, for CKA_VALUE_LEN

struct Agreement {
  const HashMechanism* hash;  // of the key derivation function; null for the raw secret
  ByteView sharedData;
  ByteView publicPoint;
};

Agreement readParameters(const CK_MECHANISM& mechanism) {
  const Refusal refusal(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for CKM_ECDH1_DERIVE");
  if (!mechanism.pParameter || mechanism.ulParameterLen != sizeof(CK_ECDH1_DERIVE_PARAMS)) throw refusal;
  CK_ECDH1_DERIVE_PARAMS parameters;
  std::memcpy(&parameters, mechanism.pParameter, sizeof parameters);
  if (!parameters.pPublicData || (!parameters.pSharedData && parameters.ulSharedDataLen != 0)) throw refusal;
  const Agreement agreement{findHash(parameters.kdf, &HashMechanism::kdf),
                            {parameters.pSharedData, static_cast<std::size_t>(parameters.ulSharedDataLen)},
                            {parameters.pPublicData, static_cast<std::size_t>(parameters.ulPublicDataLen)}};
  const bool raw = parameters.kdf == CKD_NULL;
  if (raw ? !agreement.sharedData.empty() : !agreement.hash) throw refusal;
  return agreement;
}

// The point as such, or as the contents of a DER OCTET STRING; uncompressed, on a curve as long as the key's.
void checkPoint(ByteView point, std::size_t length) {
  const std::size_t header = length < 0x80 ? 2 : 3;
  if (point.size() == length + header && point[0] == 0x04 && point[header - 1] == length) point = point.subspan(header);
  if (point.size() == length && point[0] == 0x04) return;
  throw Refusal(CKR_MECHANISM_PARAM_INVALID, "no point of the key's curve, ulPublicDataLen=", point.size());
}

// The length in the template, or nothing. Key types of a fixed length need no CKA_VALUE_LEN.
std::optional<std::size_t> readLength(const Template& wanted, CK_KEY_TYPE keyType) {
  const std::optional<CK_ULONG> length = wanted.number(CKA_VALUE_LEN);
  const Refusal refusal(CKR_TEMPLATE_INCONSISTENT, "no length for key type=", keyType);
  if (length && (*length == 0 || *length > longestSecret)) throw refusal;
  if (keyType == CKK_GENERIC_SECRET) return length;
  constexpr std::size_t tripleDesLength = 24;
  if (keyType == CKK_DES3 && length.value_or(tripleDesLength) == tripleDesLength) return tripleDesLength;
  if (keyType == CKK_AES && !length) throw Refusal(CKR_TEMPLATE_INCOMPLETE, "an AES key needs CKA_VALUE_LEN");
  if (keyType == CKK_AES && (*length == 16 || *length == 24 || *length == 32)) return length;
  throw refusal;
}

// The raw secret. The module keeps a copy of it until it is unloaded.
SecretBytes agree(ModuleLock& module, const Object& key, ByteView point) {
  Token& token = *key.token;
  useLogin(module, token);
  const CK_SESSION_HANDLE session = lockedSession(module, token);
  CK_ECDH1_DERIVE_PARAMS parameters{CKD_NULL, 0, nullptr, static_cast<CK_ULONG>(point.size()),
                                    const_cast<CK_BYTE_PTR>(point.data())};
  CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
  CK_OBJECT_HANDLE derived = 0;
  CK_RV code = module->C_DeriveKey(session, &mechanism, key.moduleHandle, nullptr, 0, &derived);
  // A token that is present refuses only the point, if it is not on the curve.
  if (code != CKR_OK) throw moduleFailure(module, token, "C_DeriveKey", code, CKR_MECHANISM_PARAM_INVALID);
  SecretBytes secret(maximumResultLength);
  CK_ATTRIBUTE value{CKA_VALUE, secret.data(), static_cast<CK_ULONG>(secret.size())};
  code = module->C_GetAttributeValue(session, derived, &value, 1);
  if (code != CKR_OK) throw moduleFailure(module, token, "C_GetAttributeValue", code);
  secret.resize(value.ulValueLen);
  return secret;
}

// Hashes of secret, counter and shared data, one after the other, as many as the length needs.
SecretBytes deriveByHash(State& state, Token& token, const Agreement& agreement, const SecretBytes& secret,
                         std::size_t length) {
  SecretBytes result;
  for (std::uint32_t counter = 1; result.size() < length; ++counter) {
    const std::uint8_t number[] = {static_cast<std::uint8_t>(counter >> 24), static_cast<std::uint8_t>(counter >> 16),
                                   static_cast<std::uint8_t>(counter >> 8), static_cast<std::uint8_t>(counter)};
    HashRun run(state, token, *agreement.hash);
    run.update(secret);
    run.update(number);
    run.update(agreement.sharedData);
    const SecretBytes block = run.finish();
    result.insert(result.end(), block.begin(), block.end());
  }
  result.resize(length);
  return result;
}

// Of a raw secret that is too long, the last bytes are the key, by the standard.
SecretBytes lastBytes(const SecretBytes& secret, std::size_t length) {
  if (length > secret.size()) throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the secret is shorter than length=", length);
  return {secret.end() - static_cast<std::ptrdiff_t>(length), secret.end()};
}

}  // namespace

CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,
                  CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey) {
  return sessionCall("C_DeriveKey", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    const CK_MECHANISM& given = requiredMechanism(pMechanism);
    if (!phKey) return call.refuse(CKR_ARGUMENTS_BAD, "phKey is NULL");
    const Template wanted(pTemplate, ulAttributeCount);
    const Mechanism& mechanism = requiredMechanism(given.mechanism, CKF_DERIVE, session.token);
    const Agreement agreement = readParameters(given);
    wanted.mustBeOf(secretKey);
    wanted.mustNotContradict(CKA_CLASS, CK_ULONG{CKO_SECRET_KEY});
    wanted.mustNotContradict(CKA_TOKEN, false);
    wanted.mustNotContradict(CKA_TRUSTED, false);
    const CK_KEY_TYPE keyType = wanted.number(CKA_KEY_TYPE).value_or(CKK_GENERIC_SECRET);
    const std::optional<std::size_t> length = readLength(wanted, keyType);

    Attributes made = withDefaults(wanted, secretKey);
    made.setNumber(CKA_CLASS, CKO_SECRET_KEY);
    made.setNumber(CKA_KEY_TYPE, keyType);
    SecretBytes secret;
    {
      ModuleLock module(state);
      const auto key = requiredKey(module, session, hBaseKey, mechanism, CKA_DERIVE);
      checkPoint(agreement.publicPoint, key->identity.size());
      checkKey(module, *key);
      const Attributes& base = knownAttributes(module, *key);
      made.setFlag(CKA_ALWAYS_SENSITIVE, base.flag(CKA_ALWAYS_SENSITIVE) && made.flag(CKA_SENSITIVE));
      made.setFlag(CKA_NEVER_EXTRACTABLE, base.flag(CKA_NEVER_EXTRACTABLE) && !made.flag(CKA_EXTRACTABLE));
      secret = agree(module, *key, agreement.publicPoint);
    }
    const SecretBytes value =
        agreement.hash ? deriveByHash(state, session.token, agreement, secret, length.value_or(agreement.hash->length))
                       : lastBytes(secret, length.value_or(secret.size()));
    made.set(CKA_VALUE, value);
    made.setNumber(CKA_VALUE_LEN, static_cast<CK_ULONG>(value.size()));
    ModuleLock module(state);
    *phKey = addSessionObject(module, session, std::move(made))->handle;
    return CKR_OK;
  });
}
