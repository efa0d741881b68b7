// The mechanism table, C_GetMechanismList and C_GetMechanismInfo.
#include "crypto/mechanisms.h"

#include <algorithm>
#include <iterator>

#include "frame/call_frames.h"

namespace tavrin {
namespace {

constexpr CK_FLAGS generates = CKF_GENERATE_KEY_PAIR;
constexpr CK_FLAGS encrypts = CKF_ENCRYPT | CKF_DECRYPT;
constexpr CK_FLAGS signs = CKF_SIGN | CKF_VERIFY;
constexpr KeySizes noKey{0, 0};

using enum HashCode;

// In the order of the list that applications get. A PSS signature that is verified in parts is hashed with SHA-256 for
// every PSS mechanism: devices have always received it in this form.
constexpr Mechanism mechanisms[] = {
    // type                     key sizes   flags              hash    in parts  PSS
    {CKM_RSA_PKCS_KEY_PAIR_GEN, rsaKeySizes, generates, none, none, false},
    {CKM_RSA_PKCS, rsaKeySizes, encrypts | signs, none, none, false},
    {CKM_RSA_PKCS_OAEP, rsaKeySizes, encrypts, none, none, false},
    {CKM_RSA_PKCS_PSS, rsaKeySizes, signs, none, sha256, true},
    {CKM_SHA1_RSA_PKCS, rsaKeySizes, signs, sha1, sha1, false},
    {CKM_SHA256_RSA_PKCS, rsaKeySizes, signs, sha256, sha256, false},
    {CKM_SHA384_RSA_PKCS, rsaKeySizes, signs, sha384, sha384, false},
    {CKM_SHA512_RSA_PKCS, rsaKeySizes, signs, sha512, sha512, false},
    {CKM_SHA1_RSA_PKCS_PSS, rsaKeySizes, signs, sha1, sha256, true},
    {CKM_SHA256_RSA_PKCS_PSS, rsaKeySizes, signs, sha256, sha256, true},
    {CKM_SHA384_RSA_PKCS_PSS, rsaKeySizes, signs, sha384, sha256, true},
    {CKM_SHA512_RSA_PKCS_PSS, rsaKeySizes, signs, sha512, sha256, true},
    {CKM_EC_KEY_PAIR_GEN, ecKeySizes, generates, none, none, false},
    {CKM_ECDH1_DERIVE, ecKeySizes, CKF_DERIVE, none, none, false},
    {CKM_ECDSA, ecKeySizes, signs, none, none, false},
    {CKM_ECDSA_SHA1, ecKeySizes, signs, sha1, sha1, false},
    {CKM_ECDSA_SHA256, ecKeySizes, signs, sha256, sha256, false},
    {CKM_ECDSA_SHA384, ecKeySizes, signs, sha384, sha384, false},
    {CKM_SHA_1, noKey, CKF_DIGEST, sha1, none, false},
    {CKM_SHA256, noKey, CKF_DIGEST, sha256, none, false},
    {CKM_SHA384, noKey, CKF_DIGEST, sha384, none, false},
    {CKM_SHA512, noKey, CKF_DIGEST, sha512, none, false}};

constexpr CK_ULONG mechanismCount = std::size(mechanisms);

}  // namespace

const Mechanism* findMechanism(CK_MECHANISM_TYPE type, CK_FLAGS flags) {
  const auto row = std::find_if(std::begin(mechanisms), std::end(mechanisms),
                                [type](const Mechanism& candidate) { return candidate.type == type; });
  return row != std::end(mechanisms) && (row->flags & flags) == flags ? row : nullptr;
}

}  // namespace tavrin

using namespace tavrin;

// Neither call checks the slot: the table is the same for every token.
CK_RV C_GetMechanismList(CK_SLOT_ID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount) {
  return initializedCall("C_GetMechanismList", [&](const Call& call) -> CK_RV {
    if (!pulCount) return call.refuse(CKR_ARGUMENTS_BAD, "pulCount is NULL");
    if (!pMechanismList) {
      *pulCount = mechanismCount;
      return CKR_OK;
    }
    // The count is not changed: applications learn the size from a query.
    if (*pulCount < mechanismCount) {
      return call.refuse(CKR_BUFFER_TOO_SMALL, "buffer too small, *pulCount=", *pulCount,
                         " mechanismCount=", mechanismCount);
    }

    std::transform(std::begin(mechanisms), std::end(mechanisms), pMechanismList,
                   [](const Mechanism& mechanism) { return mechanism.type; });
    *pulCount = mechanismCount;
    return CKR_OK;
  });
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo) {
  return initializedCall("C_GetMechanismInfo", [&](const Call& call) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");
    logDebug("C_GetMechanismInfo -- type : ", type);
    const Mechanism* mechanism = findMechanism(type);
    if (!mechanism) return call.refuse(CKR_MECHANISM_INVALID, "unsupported mechanism type=", type);

    *pInfo = {mechanism->keySizes.smallest, mechanism->keySizes.largest, mechanism->flags};
    logDebug("C_GetMechanismInfo -- exit");
    return CKR_OK;
  });
}
