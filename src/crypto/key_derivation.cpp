// C_DeriveKey: ECDH.
#include <algorithm>

#include "crypto/device_hash.h"
#include "crypto/mechanisms.h"
#include "devlib/records.h"
#include "frame/call_frames.h"
#include "objects/derived_secrets.h"
#include "objects/object_handles.h"
#include "objects/template_reader.h"
#include "sessions/session.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

// A key derivation function and the hash that the device computes for it. The hash codes differ from those of the
// digests: applications hold derived keys that were made with these.
struct KeyDerivationFunction {
  CK_EC_KDF_TYPE kdf;
  HashCode hash;
  int resultLength;  // the in-length for tavrin_finalHash, which the library ignores
};

constexpr KeyDerivationFunction keyDerivationFunctions[] = {{CKD_SHA1_KDF, HashCode::sha1Alternative, 20},
                                                            {CKD_SHA256_KDF, HashCode::sha384, 32}};

// The mechanism's parameter, or false when there is none that can be used.
bool readParameters(const CK_MECHANISM& mechanism, CK_ECDH1_DERIVE_PARAMS& parameters) {
  if (!mechanism.pParameter || mechanism.ulParameterLen < sizeof parameters) return false;
  std::memcpy(&parameters, mechanism.pParameter, sizeof parameters);
  return parameters.pPublicData && parameters.ulPublicDataLen != 0;
}

// Hashes the secret with the device. Failures are not reported: the result is the content of the digest's buffer.
SecretBytes hashSecret(const Session& session, const KeyDerivationFunction& function, const SecretBytes& secret) {
  void* context = nullptr;
  SecretBytes digest(Digest::capacity);
  int length = function.resultLength;
  initHash(session, function.hash, &context);
  updateHash(context, secret);
  tavrin_finalHash(context, digest.data(), &length, libraryInstance);
  digest.resize(returnedLength(length, digest.size()));
  return digest;
}

SecretBytes applyKdf(const Session& session, CK_EC_KDF_TYPE kdf, SecretBytes secret) {
  for (const KeyDerivationFunction& function : keyDerivationFunctions) {
    if (function.kdf == kdf) return hashSecret(session, function, secret);
  }
  return secret;
}

// The length in the template; 0 when it has none.
std::size_t wantedLength(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount) {
  CK_ULONG length = 0;
  if (!pTemplate) return 0;
  forEachGiven(pTemplate, ulAttributeCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
    if (type == CKA_VALUE_LEN) length = numberOf(value);
  });
  return static_cast<std::size_t>(length);
}

// The secret that the device and the peer share, or a refusal.
CK_RV agreeOnSecret(const Call& call, const Session& session, const TavrinKeyPair& baseKey, ByteView peer,
                    SecretBytes& secret) {
  std::uint8_t* shared = nullptr;
  int length = 0;
  const int status = tavrin_ecdhDerive(session.deviceId(), baseKey.recordId, userPassword.copy().text(), peer.data(),
                                       deviceLength(peer.size()), &shared, &length, libraryInstance);
  if (status != 0 || !shared || length < 1) {
    return call.refuse(CKR_FUNCTION_FAILED, "tavrin_ecdhDerive failed: ", status);
  }
  if (isTooLong(length)) return call.refuse(CKR_FUNCTION_FAILED, "shared secret too long, length=", length);
  secret.assign(shared, shared + length);
  return CKR_OK;
}

// Leaves no copy of the bytes that are cut off.
void cutOrPad(SecretBytes& secret, std::size_t length) {
  SecretBytes result(length);
  std::copy_n(secret.begin(), std::min(length, secret.size()), result.begin());
  secret.swap(result);
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

// Refusals of arguments write no error line.
CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,
                  CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey) {
  const auto derive = [&](const Call& call, const Session& session) -> CK_RV {
    if (!pMechanism || !phKey) return CKR_ARGUMENTS_BAD;
    if (pMechanism->mechanism != CKM_ECDH1_DERIVE) return CKR_MECHANISM_INVALID;
    CK_ECDH1_DERIVE_PARAMS parameters{};
    if (!readParameters(*pMechanism, parameters)) return CKR_MECHANISM_PARAM_INVALID;
    if (hBaseKey < privateKeyBase || hBaseKey - privateKeyBase > maximumRecordNumber) return CKR_KEY_HANDLE_INVALID;

    const ByteView peer(parameters.pPublicData, static_cast<std::size_t>(parameters.ulPublicDataLen));
    logDebug("key id :: ", hBaseKey - privateKeyBase);
    const TavrinKeyPair* baseKey = resolveKeyPair(session, hBaseKey, privateKeyBase);
    if (!baseKey) return CKR_KEY_HANDLE_INVALID;
    logDebug("base key id :: ", Hex{baseKey->recordId});
    logDebug("public key :: ", Hex{peer});

    SecretBytes secret;
    const CK_RV refusal = agreeOnSecret(call, session, *baseKey, peer, secret);
    if (refusal != CKR_OK) return refusal;
    secret = applyKdf(session, parameters.kdf, std::move(secret));
    const std::size_t length = wantedLength(pTemplate, ulAttributeCount);
    if (length != 0) cutOrPad(secret, length);

    const std::size_t finalLength = secret.size();
    *phKey = derivedSecretTable.insert(std::move(secret));
    logDebug("C_DeriveKey: done, handle=", *phKey, " len=", finalLength);
    return CKR_OK;
  };
  return sessionCall("C_DeriveKey", hSession, derive, RefusalLines::none);
}
