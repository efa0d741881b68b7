// C_GetAttributeValue, C_SetAttributeValue and C_GetObjectSize.
#include <algorithm>
#include <optional>
#include <string>

#include "objects/attribute_table.h"
#include "objects/derived_secrets.h"
#include "objects/object_handles.h"
#include "objects/template_reader.h"
#include "sessions/refusals.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

void copyTo(CK_VOID_PTR out, ByteView bytes) { std::copy(bytes.begin(), bytes.end(), static_cast<std::uint8_t*>(out)); }

// A derived secret has a value and no other attribute. The others read as unavailable, which is no error.
CK_RV readDerivedSecret(const Call& call, CK_OBJECT_HANDLE hObject, std::span<CK_ATTRIBUTE> entries) {
  const auto secret = derivedSecretTable.find(hObject);
  if (!secret) return call.refuse(CKR_OBJECT_HANDLE_INVALID, "derived key handle not found=", hObject);
  for (CK_ATTRIBUTE& entry : entries) {
    if (entry.type != CKA_VALUE) {
      entry.ulValueLen = CK_UNAVAILABLE_INFORMATION;
      continue;
    }
    if (entry.pValue && entry.ulValueLen < secret->size()) return CKR_BUFFER_TOO_SMALL;
    if (entry.pValue) copyTo(entry.pValue, *secret);
    entry.ulValueLen = static_cast<CK_ULONG>(secret->size());
  }
  return CKR_OK;
}

// The object of a handle that is not a derived secret's, or the refusal.
CK_RV findObject(const Call& call, const Session& session, ObjectView& object) {
  const CK_OBJECT_HANDLE handle = object.handle;
  // The handle of record number 0 is refused here. Devices number their records from 1.
  if (handle > certificateBase && handle < derivedSecretBase) {
    object.certificate = resolveCertificate(session, handle, certificateBase);
    if (object.certificate) return CKR_OK;
    return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Certificate not found in get attribute : ", handle);
  }
  if (isKey(handle)) {
    object.keyPair = resolveEitherHalf(session, handle);
    if (object.keyPair) return CKR_OK;
    return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Key pair not found in get attribute : ", handle);
  }
  return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Input hobject not valid in get attribute : ", handle);
}

CK_RV readEntry(const Call& call, const ObjectView& object, std::size_t index, CK_ATTRIBUTE& entry) {
  const CK_ATTRIBUTE_TYPE type = entry.type;
  const CK_ULONG provided = entry.ulValueLen;
  logDebug("C_GetAttributeValue type : ", type);
  AttributeValue value;
  readAttribute(type, object, value);
  const ByteView bytes = value.bytes();
  if (entry.pValue && provided < bytes.size()) {
    return call.refuse(CKR_BUFFER_TOO_SMALL, "buffer too small at index=", index, " type=", type,
                       " provided=", provided, " required=", bytes.size());
  }
  if (entry.pValue) copyTo(entry.pValue, bytes);
  entry.ulValueLen = static_cast<CK_ULONG>(bytes.size());
  logDebug("C_GetAttributeValue length : ", bytes.size());
  return CKR_OK;
}

std::optional<std::size_t> privateKeySize(const Session& session, CK_OBJECT_HANDLE handle) {
  const TavrinKeyPair* keyPair = resolveKeyPair(session, handle, privateKeyBase);
  // The device does not report the size of the private part, so twice the size of the public key is returned.
  return keyPair ? std::optional(2 * publicKey(*keyPair).size()) : std::nullopt;
}

std::optional<std::size_t> publicKeySize(const Session& session, CK_OBJECT_HANDLE handle) {
  const TavrinKeyPair* keyPair = resolveKeyPair(session, handle, publicKeyBase);
  return keyPair ? std::optional(publicKey(*keyPair).size()) : std::nullopt;
}

std::optional<std::size_t> certificateSize(const Session& session, CK_OBJECT_HANDLE handle) {
  const TavrinCertificate* record = resolveCertificate(session, handle, certificateBase);
  return record ? std::optional(certificate(*record).size()) : std::nullopt;
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount) {
  return sessionCall("C_GetAttributeValue", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    if (!pTemplate) return call.refuseBare(CKR_ARGUMENTS_BAD, "C_GetAttributeValue template is null");
    logDebug("C_GetAttributeValue count : ", ulCount);
    if (ulCount == 0) return call.refuse(CKR_ARGUMENTS_BAD, "ulCount<=0");

    const auto entries = templateEntries(pTemplate, ulCount);
    if (hObject >= derivedSecretBase) return readDerivedSecret(call, hObject, entries);
    ObjectView object{hObject};
    const CK_RV refusal = findObject(call, session, object);
    if (refusal != CKR_OK) return refusal;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const CK_RV result = readEntry(call, object, i, entries[i]);
      if (result != CKR_OK) return result;
    }
    return CKR_OK;
  });
}

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount) {
  return sessionCall("C_SetAttributeValue", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    if (!pTemplate) return call.refuse(CKR_ARGUMENTS_BAD, "pTemplate is NULL");
    if (ulCount == 0) return call.refuse(CKR_ARGUMENTS_BAD, "ulCount<=0");
    if (!isKey(hObject)) return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid hObject=", hObject);
    const TavrinKeyPair* keyPair = resolveEitherHalf(session, hObject);
    if (!keyPair) {
      return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, "Key pair not found in Set attribute : ", hObject);
    }

    std::string newLabel;
    ByteView newId;
    forEachGiven(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
      logDebug("C_SetAttributeValue - attrip type : ", type);
      if (type == CKA_LABEL) newLabel.assign(value.begin(), value.end());
      if (type == CKA_ID) newId = value;
    });
    if (!newLabel.empty() || !newId.empty()) {
      const int status =
          tavrin_updateKeyPairDetails(session.deviceId(), keyPair->recordId, userPassword.copy().text(),
                                      newLabel.c_str(), newId.data(), deviceLength(newId.size()), libraryInstance);
      if (status != 0) return call.refuseBare(CKR_FUNCTION_FAILED, "Update key pair details failed : ", status);
    }
    logDebug("Set attribute end");
    return CKR_OK;
  });
}

CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize) {
  return sessionCall("C_GetObjectSize", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    const char* kind = "Certificate";
    std::optional<std::size_t> size;
    if (isPrivateKey(hObject)) {
      kind = "Private key";
      size = privateKeySize(session, hObject);
    } else if (isPublicKey(hObject)) {
      kind = "Public key";
      size = publicKeySize(session, hObject);
    } else {
      // Every other handle is taken for a certificate's, so derived secrets have no size.
      size = certificateSize(session, hObject);
    }
    if (!size) {
      return call.refuseBare(CKR_OBJECT_HANDLE_INVALID, kind, " not found in get object size : ", hObject);
    }
    // Checked last, so that callers who pass NULL get the other refusals first.
    if (!pulSize) return call.refuse(CKR_ARGUMENTS_BAD, "pulSize is NULL");
    *pulSize = static_cast<CK_ULONG>(*size);
    return CKR_OK;
  });
}
