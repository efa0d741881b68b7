#include "standard/mechanisms.h"

#include <algorithm>

#include "standard/refusal.h"
#include "standard/tokens.h"

namespace tavrin::standard {
namespace {

constexpr HashMechanism hashes[] = {
    {CKM_SHA_1, 20, CKG_MGF1_SHA1, CKD_SHA1_KDF},
    {CKM_SHA256, 32, CKG_MGF1_SHA256, CKD_SHA256_KDF},
    {CKM_SHA384, 48, CKG_MGF1_SHA384, CKD_SHA384_KDF},
    {CKM_SHA512, 64, CKG_MGF1_SHA512, CKD_SHA512_KDF},
};
constexpr const HashMechanism* sha1 = &hashes[0];
constexpr const HashMechanism* sha256 = &hashes[1];
constexpr const HashMechanism* sha384 = &hashes[2];
constexpr const HashMechanism* sha512 = &hashes[3];

constexpr CK_FLAGS signature = CKF_SIGN | CKF_VERIFY;
constexpr CK_FLAGS cipher = CKF_ENCRYPT | CKF_DECRYPT;
constexpr CK_FLAGS curves = CKF_EC_F_P | CKF_EC_NAMEDCURVE | CKF_EC_UNCOMPRESS;
constexpr CK_KEY_TYPE noKey = CK_UNAVAILABLE_INFORMATION;

constexpr Mechanism mechanisms[] = {
    {CKM_RSA_PKCS_KEY_PAIR_GEN, rsaKeySizes, CKF_GENERATE_KEY_PAIR, CKK_RSA, nullptr, 0},
    {CKM_RSA_PKCS, rsaKeySizes, signature | cipher, CKK_RSA, nullptr, CKM_RSA_PKCS},
    {CKM_RSA_PKCS_OAEP, rsaKeySizes, cipher, CKK_RSA, nullptr, 0},
    {CKM_RSA_PKCS_PSS, rsaKeySizes, signature, CKK_RSA, nullptr, CKM_RSA_PKCS_PSS},
    {CKM_SHA1_RSA_PKCS, rsaKeySizes, signature, CKK_RSA, sha1, CKM_RSA_PKCS},
    {CKM_SHA256_RSA_PKCS, rsaKeySizes, signature, CKK_RSA, sha256, CKM_RSA_PKCS},
    {CKM_SHA384_RSA_PKCS, rsaKeySizes, signature, CKK_RSA, sha384, CKM_RSA_PKCS},
    {CKM_SHA512_RSA_PKCS, rsaKeySizes, signature, CKK_RSA, sha512, CKM_RSA_PKCS},
    {CKM_SHA1_RSA_PKCS_PSS, rsaKeySizes, signature, CKK_RSA, sha1, CKM_RSA_PKCS_PSS},
    {CKM_SHA256_RSA_PKCS_PSS, rsaKeySizes, signature, CKK_RSA, sha256, CKM_RSA_PKCS_PSS},
    {CKM_SHA384_RSA_PKCS_PSS, rsaKeySizes, signature, CKK_RSA, sha384, CKM_RSA_PKCS_PSS},
    {CKM_SHA512_RSA_PKCS_PSS, rsaKeySizes, signature, CKK_RSA, sha512, CKM_RSA_PKCS_PSS},
    {CKM_EC_KEY_PAIR_GEN, ecKeySizes, CKF_GENERATE_KEY_PAIR | curves, CKK_EC, nullptr, 0},
    {CKM_ECDH1_DERIVE, ecKeySizes, CKF_DERIVE | curves, CKK_EC, nullptr, 0},
    {CKM_ECDSA, ecKeySizes, signature | curves, CKK_EC, nullptr, CKM_ECDSA},
    {CKM_ECDSA_SHA1, ecKeySizes, signature | curves, CKK_EC, sha1, CKM_ECDSA},
    {CKM_ECDSA_SHA256, ecKeySizes, signature | curves, CKK_EC, sha256, CKM_ECDSA},
    {CKM_ECDSA_SHA384, ecKeySizes, signature | curves, CKK_EC, sha384, CKM_ECDSA},
    {CKM_SHA_1, {}, CKF_DIGEST, noKey, nullptr, 0},
    {CKM_SHA256, {}, CKF_DIGEST, noKey, nullptr, 0},
    {CKM_SHA384, {}, CKF_DIGEST, noKey, nullptr, 0},
    {CKM_SHA512, {}, CKF_DIGEST, noKey, nullptr, 0},
};

}  // namespace

std::span<const Mechanism> allMechanisms() { return mechanisms; }

bool isOnToken(const Mechanism& mechanism, const Token& token) {
  return token.hasPssAndOaep || !mechanism.needsNewFirmware();
}

const Mechanism& requiredMechanism(CK_MECHANISM_TYPE type, CK_FLAGS use, const Token& token) {
  for (const Mechanism& mechanism : mechanisms)
    if (mechanism.type == type && (mechanism.flags & use) == use && isOnToken(mechanism, token)) return mechanism;
  throw Refusal(CKR_MECHANISM_INVALID, "unsupported mechanism=", type);
}

const HashMechanism* findHash(CK_ULONG value, CK_ULONG HashMechanism::*member) {
  const auto* const found = std::ranges::find(hashes, value, member);
  return found == std::end(hashes) ? nullptr : found;
}

}  // namespace tavrin::standard
