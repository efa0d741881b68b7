// C_CreateObject: importing a certificate with its chain, or an RSA private key.
#include <string>

#include "devlib/store_failure.h"
#include "objects/ca_chain.h"
#include "objects/object_handles.h"
#include "objects/template_reader.h"
#include "sessions/refusals.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

// The key type of every import request, for keys of all sizes.
constexpr auto importedKeyType = static_cast<std::int32_t>(KeyType::rsa2048);

// The template's values; they point into it.
struct NewObject {
  CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
  CK_KEY_TYPE keyType = CKK_RSA;
  std::string_view label;
  ByteView value;
  ByteView id;
  ByteView modulus;
  ByteView privateExponent;
  ByteView prime1;
};

void takeAttribute(CK_ATTRIBUTE_TYPE type, ByteView value, NewObject& object) {
  switch (type) {
    case CKA_CLASS:
      object.objectClass = numberOf(value);
      break;
    case CKA_LABEL:
      object.label = {reinterpret_cast<const char*>(value.data()), value.size()};
      break;
    case CKA_VALUE:
      object.value = value;
      break;
    case CKA_KEY_TYPE:
      object.keyType = numberOf(value);
      break;
    case CKA_ID:
      object.id = value;
      break;
    case CKA_MODULUS:
      object.modulus = value;
      break;
    case CKA_PRIVATE_EXPONENT:
      object.privateExponent = value;
      break;
    case CKA_PRIME_1:
      object.prime1 = value;
      break;
    default:
      // Ignored. The device computes the other components of a key itself.
      break;
  }
}

NewObject readNewObject(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
  NewObject object;
  forEachGiven(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
    logDebug("C_CreateObject - attrip type : ", type);
    takeAttribute(type, value, object);
  });
  return object;
}

std::vector<std::uint8_t> copyOf(ByteView bytes) { return {bytes.begin(), bytes.end()}; }

// The import request of a private key. Its secret parts are wiped when it is destroyed.
class PrivateKeyImport {
 public:
  explicit PrivateKeyImport(const NewObject& object) {
    details_.label = object.label;
    details_.keyType = importedKeyType;
    details_.value = copyOf(object.value);
    details_.modulus = copyOf(object.modulus);
    details_.privateExponent = copyOf(object.privateExponent);
    details_.prime1 = copyOf(object.prime1);
  }
  ~PrivateKeyImport() {
    // The library may have filled in the parts that the module leaves empty.
    for (auto* part : {&details_.value, &details_.privateExponent, &details_.prime1, &details_.prime2,
                       &details_.exponent1, &details_.exponent2, &details_.coefficient}) {
      if (!part->empty()) platform::wipe(part->data(), part->size());
    }
  }
  PrivateKeyImport(const PrivateKeyImport&) = delete;
  PrivateKeyImport& operator=(const PrivateKeyImport&) = delete;

  ImportPFXDetails& details() { return details_; }

 private:
  ImportPFXDetails details_{};
};

CK_RV createPrivateKey(const Call& call, const Session& session, const NewObject& object,
                       CK_OBJECT_HANDLE_PTR phObject) {
  if (object.keyType == CKK_EC) {
    return call.refuseBare(CKR_FUNCTION_FAILED, "ECC keypair not supported for import");
  }
  if (object.modulus.empty() || object.privateExponent.empty() || object.prime1.empty()) {
    return call.refuseBare(CKR_FUNCTION_FAILED, "Invalid input parameters for import RSA key");
  }

  PrivateKeyImport request(object);
  const int status =
      tavrin_importPfx(session.deviceId(), userPassword.copy().text(), &request.details(), libraryInstance);
  if (status != 0) {
    return call.refuseBare(storeFailure(status), "Import private key into device failed : ", status);
  }
  // *phObject is not written if the device does not list the new record, although the key is on the token.
  const CK_OBJECT_HANDLE handle = findKeyPairHandle(session, request.details().recordId);
  if (handle != 0) *phObject = handle;
  return CKR_OK;
}

// The device writes the 16-byte identifier of the stored certificate into the record's `recordId`.
CK_RV importCertificate(const Call& call, const Session& session, TavrinCertificate& record) {
  const int status = tavrin_importCertificate(session.deviceId(), userPassword.copy().text(), &record, libraryInstance);
  if (status == 0) return CKR_OK;
  return call.refuseBare(storeFailure(status), "Leaf import failed: ", status);
}

// Imports the issuers, root first, and then the certificate. Imports the certificate alone when findChain finds no
// whole chain. When the device refuses a certificate of the chain, those before it stay on the token.
CK_RV importWithChain(const Call& call, const Session& session, const std::string& issuerName,
                      TavrinCertificate& record) {
  std::vector<TavrinCertificate> chain = findChain(record, issuerName);
  if (chain.empty()) {
    logDebug("Chain import skipped or failed \xE2\x80\x94 Performing normal leaf import");
    return importCertificate(call, session, record);
  }
  for (TavrinCertificate& link : chain) {
    const CK_RV refusal = importCertificate(call, session, link);
    if (refusal != CKR_OK) return refusal;
    logDebug("Certificate imported successfully");
  }
  record = chain.back();
  return CKR_OK;
}

CK_RV createCertificate(const Call& call, const Session& session, const NewObject& object,
                        CK_OBJECT_HANDLE_PTR phObject) {
  if (object.value.empty()) {
    return call.refuseBare(CKR_FUNCTION_FAILED, "Certificate data not available in create object");
  }
  if (object.value.size() > sizeof TavrinCertificate::certificate) {
    return call.refuse(CKR_DATA_LEN_RANGE, "certificate too long, ulValueLen=", object.value.size());
  }
  TavrinCertificate record = certificateRecord(object.label, object.id, object.value);
  CertificateDetails details{};
  if (tavrin_getCertificateDetails(record.certificate, static_cast<int>(record.certificateLength), &details, nullptr) !=
      0) {
    logDebug("certificate parsing failed");
    return CKR_DATA_INVALID;
  }

  const CK_RV refusal = importWithChain(call, session, details.issuerName, record);
  if (refusal != CKR_OK) return refusal;
  const CK_OBJECT_HANDLE handle = findCertificateHandle(session, record.recordId);
  if (handle != 0) *phObject = handle;
  return CKR_OK;
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE_PTR phObject) {
  return sessionCall("C_CreateObject", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    if (!pTemplate) return call.refuse(CKR_ARGUMENTS_BAD, "pTemplate is NULL");
    if (ulCount == 0) return call.refuse(CKR_ARGUMENTS_BAD, "ulCount<=0");
    if (!phObject) return call.refuse(CKR_ARGUMENTS_BAD, "phObject is NULL");

    const NewObject object = readNewObject(pTemplate, ulCount);
    if (object.objectClass == CKO_PRIVATE_KEY) return createPrivateKey(call, session, object, phObject);
    if (object.objectClass == CKO_CERTIFICATE) return createCertificate(call, session, object, phObject);
    return call.refuseBare(CKR_FUNCTION_NOT_SUPPORTED, "Provided object class not supported : ", object.objectClass);
  });
}
