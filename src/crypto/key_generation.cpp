// C_GenerateKeyPair.
#include <algorithm>
#include <iterator>

#include "crypto/mechanisms.h"
#include "devlib/store_failure.h"
#include "objects/object_handles.h"
#include "objects/template_reader.h"
#include "sessions/refusals.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

// Label, id, usage and the kind of key come from the private template. The mechanism is not examined.
CK_KEY_TYPE readPrivateTemplate(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, TavrinKeyPair& request) {
  CK_KEY_TYPE keyType = CKK_RSA;
  forEachGiven(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
    const std::uint32_t set = value.front() != 0 ? ~0U : 0U;
    switch (type) {
      case CKA_LABEL:
        std::fill(std::begin(request.label), std::end(request.label), '\0');
        std::copy_n(value.begin(), std::min(value.size(), maximumLabelLength), request.label);
        break;
      case CKA_KEY_TYPE:
        keyType = numberOf(value);
        break;
      case CKA_ID:
        request.keyIdLength = copyToField(request.keyId, value);
        break;
      case CKA_DECRYPT:
        request.usage |= set & usageDecrypt;
        break;
      case CKA_SIGN:
        request.usage |= set & usageSign;
        break;
      default:
        break;
    }
  });
  if (request.usage == 0) request.usage = keyType == CKK_EC ? usageSign | usageDecrypt : usageSign;
  logDebug("C_GenerateKeyPair - keytype : ", keyType);
  return keyType;
}

// Sets the key type of the table's row that fits; false when none does.
template <typename Predicate>
bool chooseKeyType(TavrinKeyPair& request, Predicate&& fits) {
  const auto row = std::find_if(std::begin(keyTypes), std::end(keyTypes), fits);
  if (row == std::end(keyTypes)) return false;
  request.keyType = codeOf(row->type);
  return true;
}

CK_RV readModulusBits(const Call& call, ByteView value, TavrinKeyPair& request) {
  const CK_ULONG bits = numberOf(value);
  logDebug("C_GenerateKeyPair - modulusBits : ", bits);
  return chooseKeyType(request,
                       [&](const KeyTypeInfo& row) { return row.algorithm == KeyAlgorithm::rsa && row.bits == bits; })
             ? CKR_OK
             : call.refuse(CKR_MECHANISM_INVALID, "unsupported RSA modulusBits=", bits);
}

CK_RV readCurve(const Call& call, ByteView value, TavrinKeyPair& request) {
  return chooseKeyType(request, [&](const KeyTypeInfo& row) { return sameBytes(row.curve, value); })
             ? CKR_OK
             : call.refuse(CKR_MECHANISM_INVALID, "unknown EC param (len=", value.size(), ")");
}

// The public template gives the size of the key. For a key type that is neither RSA nor EC it is not read, and the
// token makes an RSA 2048 key.
CK_RV readPublicTemplate(const Call& call, CK_KEY_TYPE keyType, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                         TavrinKeyPair& request) {
  request.keyType = codeOf(keyType == CKK_EC ? KeyType::ecP256 : KeyType::rsa2048);
  CK_RV refusal = CKR_OK;
  forEachGiven(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
    if (refusal != CKR_OK) return;
    if (keyType == CKK_RSA && type == CKA_MODULUS_BITS) refusal = readModulusBits(call, value, request);
    if (keyType == CKK_EC && type == CKA_EC_PARAMS) refusal = readCurve(call, value, request);
  });
  return refusal;
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_ATTRIBUTE_PTR pPublicKeyTemplate,
                        CK_ULONG ulPublicKeyAttributeCount, CK_ATTRIBUTE_PTR pPrivateKeyTemplate,
                        CK_ULONG ulPrivateKeyAttributeCount, CK_OBJECT_HANDLE_PTR phPublicKey,
                        CK_OBJECT_HANDLE_PTR phPrivateKey) {
  return sessionCall("C_GenerateKeyPair", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    if (session.isReadOnly()) return refuseState(call, session.state);
    if (!pMechanism) return call.refuse(CKR_ARGUMENTS_BAD, "pMechanism is NULL");
    if (hasParameter(*pMechanism)) {
      const CK_MECHANISM_TYPE type = pMechanism->mechanism;
      return call.refuse(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=", type);
    }
    if (!pPublicKeyTemplate) return call.refuse(CKR_ARGUMENTS_BAD, "pPublicKeyTemplate is NULL");
    if (ulPublicKeyAttributeCount == 0) return call.refuse(CKR_ARGUMENTS_BAD, "ulPublicKeyAttributeCount<=0");
    if (!pPrivateKeyTemplate) return call.refuse(CKR_ARGUMENTS_BAD, "pPrivateKeyTemplate is NULL");
    if (ulPrivateKeyAttributeCount == 0) return call.refuse(CKR_ARGUMENTS_BAD, "ulPrivateKeyAttributeCount<=0");
    if (!phPublicKey) return call.refuse(CKR_ARGUMENTS_BAD, "phPublicKey is NULL");
    if (!phPrivateKey) return call.refuse(CKR_ARGUMENTS_BAD, "phPrivateKey is NULL");

    TavrinKeyPair keyPair{};
    const CK_KEY_TYPE keyType = readPrivateTemplate(pPrivateKeyTemplate, ulPrivateKeyAttributeCount, keyPair);
    const CK_RV refusal = readPublicTemplate(call, keyType, pPublicKeyTemplate, ulPublicKeyAttributeCount, keyPair);
    if (refusal != CKR_OK) return refusal;
    const int status =
        tavrin_generateKeyPair(session.deviceId(), userPassword.copy().text(), &keyPair, libraryInstance);
    if (status != 0) return call.refuseBare(storeFailure(status), "Generate key pair failed : ", status);

    *phPublicKey = objectHandle(publicKeyBase, keyPair.id);
    *phPrivateKey = objectHandle(privateKeyBase, keyPair.id);
    logDebug("C_GenerateKeyPair - exit");
    return CKR_OK;
  });
}
