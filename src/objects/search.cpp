// C_FindObjectsInit, C_FindObjects and C_FindObjectsFinal.
//
// For each kind of object one criterion is compared: the first one present in a fixed order. The other entries of a
// template are ignored.
#include <optional>
#include <string_view>

#include "devlib/device_library.h"
#include "devlib/records.h"
#include "objects/object_handles.h"
#include "objects/template_reader.h"
#include "sessions/refusals.h"

namespace tavrin {
namespace {

// The criteria of a template; they point into it.
struct Criteria {
  std::optional<CK_OBJECT_CLASS> objectClass;
  std::string_view label;  // empty: no criterion
  std::optional<ByteView> value;
  std::optional<ByteView> subject;
  std::optional<ByteView> id;
  std::optional<ByteView> modulus;
};

void takeCriterion(CK_ATTRIBUTE_TYPE type, ByteView value, Criteria& criteria) {
  switch (type) {
    case CKA_CLASS:
      criteria.objectClass = numberOf(value);
      logDebug("Find object class : ", *criteria.objectClass);
      break;
    case CKA_ID:
      criteria.id = value;
      break;
    case CKA_SUBJECT:
      criteria.subject = value;
      break;
    case CKA_LABEL:
      // A C string: existing applications pass one. The given length is not used.
      criteria.label = reinterpret_cast<const char*>(value.data());
      break;
    case CKA_VALUE:
      criteria.value = value;
      break;
    case CKA_MODULUS:
      logDebug("Modulus provided length : ", value.size());
      criteria.modulus = value;
      break;
    default:
      break;
  }
}

CK_RV readCriteria(const Call& call, std::span<const CK_ATTRIBUTE> entries, Criteria& criteria) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const CK_ATTRIBUTE_TYPE type = entries[i].type;
    const ByteView value = valueOf(entries[i]);
    if (!value.data()) {
      return call.refuse(CKR_ATTRIBUTE_VALUE_INVALID, "pValue is NULL at attribute index=", i, " type=", type);
    }
    if (value.empty()) {
      return call.refuse(CKR_ATTRIBUTE_VALUE_INVALID, "ulValueLen<=0 at attribute index=", i, " type=", type);
    }
    logDebug("Find object init type : ", type);
    if (type == CKA_CLASS && value.size() != sizeof(CK_OBJECT_CLASS)) {
      return call.refuse(CKR_ATTRIBUTE_VALUE_INVALID, "wrong size for CKA_CLASS at index=", i,
                         " ulValueLen=", value.size());
    }
    takeCriterion(type, value, criteria);
  }
  return CKR_OK;
}

struct DeviceObjects {
  std::vector<TavrinCertificate> certificates;
  std::vector<TavrinKeyPair> keyPairs;
};

DeviceObjects copyLists(const Session& session) {
  return {tavrin_getCertificateList(session.deviceId(), libraryInstance),
          tavrin_getKeyPairList(session.deviceId(), libraryInstance)};
}

// A device that has just been connected lists nothing before it is initialised. When that fails, the search uses the
// lists as they are.
DeviceObjects listObjects(const Session& session) {
  DeviceObjects objects = copyLists(session);
  if (!objects.certificates.empty() && !objects.keyPairs.empty()) return objects;
  const int status = tavrin_initDevice(session.deviceId(), true, libraryInstance);
  if (status == 0) return copyLists(session);
  logError("Init device for certificates in find objects failed : ", status);
  return objects;
}

bool matches(const TavrinCertificate& record, const Criteria& criteria) {
  if (!criteria.label.empty()) return label(record) == criteria.label;
  if (criteria.value) return sameBytes(certificate(record), *criteria.value);
  if (criteria.id) return sameBytes(certId(record), *criteria.id);
  if (criteria.subject) {
    const ByteView der = certificate(record);
    return sameBytes(tavrin_getCertificateSubject(der.data(), static_cast<int>(der.size()), nullptr),
                     *criteria.subject);
  }
  return true;
}

bool matches(const TavrinKeyPair& record, const Criteria& criteria) {
  if (!criteria.label.empty()) return label(record) == criteria.label;
  if (criteria.value) return sameBytes(publicKey(record), *criteria.value);
  if (criteria.id) return sameBytes(keyId(record), *criteria.id);
  if (criteria.modulus) return sameBytes(publicKey(record), *criteria.modulus);
  return true;
}

template <typename Record>
void keepMatches(std::vector<Record>& records, const Criteria& criteria) {
  std::erase_if(records, [&](const Record& record) { return !matches(record, criteria); });
}

// Keeps the records that match the criteria and decides which halves of the key pairs are reported.
void selectResults(Session& session, DeviceObjects objects, const Criteria& criteria) {
  const auto wanted = criteria.objectClass;
  // Without a class every object is found and the other entries are ignored: applications list a token in this way.
  const bool all = !wanted;
  if (all || wanted == CKO_CERTIFICATE) {
    if (!all) keepMatches(objects.certificates, criteria);
    session.search.certificates = std::move(objects.certificates);
  }
  if (all || wanted == CKO_PUBLIC_KEY || wanted == CKO_PRIVATE_KEY) {
    if (!all) keepMatches(objects.keyPairs, criteria);
    session.search.keyPairs = std::move(objects.keyPairs);
    session.search.findsPublicKeys = !session.search.keyPairs.empty() && wanted != CKO_PRIVATE_KEY;
    session.search.findsPrivateKeys =
        !session.search.keyPairs.empty() && wanted != CKO_PUBLIC_KEY && session.isUserSession();
  }
}

void resetSearch(Session& session) {
  session.search.cursor = 0;
  session.search.findsPublicKeys = false;
  session.search.findsPrivateKeys = false;
  session.search.certificates.clear();
  session.search.keyPairs.clear();
}

// All results as one sequence: the public keys, then the private keys, then the certificates.
class SearchResults {
 public:
  explicit SearchResults(const Session& session)
      : session_(session),
        publicKeys_(session.search.findsPublicKeys ? session.search.keyPairs.size() : 0),
        privateKeys_(session.search.findsPrivateKeys ? session.search.keyPairs.size() : 0) {}

  std::size_t size() const { return publicKeys_ + privateKeys_ + session_.search.certificates.size(); }

  CK_OBJECT_HANDLE operator[](std::size_t position) const {
    if (position < publicKeys_) return objectHandle(publicKeyBase, session_.search.keyPairs[position].id);
    position -= publicKeys_;
    if (position < privateKeys_) return objectHandle(privateKeyBase, session_.search.keyPairs[position].id);
    return objectHandle(certificateBase, session_.search.certificates[position - privateKeys_].id);
  }

 private:
  const Session& session_;
  std::size_t publicKeys_;
  std::size_t privateKeys_;
};

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
  return sessionCall("C_FindObjectsInit", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (!pTemplate && ulCount != 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pTemplate is NULL with ulCount=", ulCount);
    }

    resetSearch(session);
    logDebug("Find object init count : ", ulCount);
    Criteria criteria;
    const CK_RV refusal = readCriteria(call, templateEntries(pTemplate, ulCount), criteria);
    if (refusal != CKR_OK) return refusal;

    DeviceObjects objects = listObjects(session);
    if (criteria.id) logDebug("Find init id : ", Hex{*criteria.id});
    selectResults(session, std::move(objects), criteria);
    // Any operation in progress is replaced silently.
    session.activeOperation = Operation::search;
    return CKR_OK;
  });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                    CK_ULONG_PTR pulObjectCount) {
  return sessionCall("C_FindObjects", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::search) return refuseNotInitialized(call, session);
    if (!phObject && ulMaxObjectCount != 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "phObject is NULL with ulMaxObjectCount=", ulMaxObjectCount);
    }
    if (!pulObjectCount) return call.refuse(CKR_ARGUMENTS_BAD, "pulObjectCount is NULL");

    *pulObjectCount = 0;
    const SearchResults results(session);
    logDebug("C_FindObjects find object count : ", results.size());
    if (results.size() == 0) {
      logDebug("C_FindObjects find object count 0");
      return CKR_OK;
    }
    if (ulMaxObjectCount == 0) logDebug("C_FindObjects find object max count is 0 : ", ulMaxObjectCount);

    CK_ULONG count = 0;
    for (; count < ulMaxObjectCount && session.search.cursor + count < results.size(); ++count) {
      phObject[count] = results[session.search.cursor + count];
    }
    *pulObjectCount = count;
    session.search.cursor += static_cast<std::uint32_t>(count);
    // The level is read once for all handles when it leaves the lines out, since there may be thousands.
    const CK_ULONG shown = getLogLevel() >= debugLevel ? count : 0;
    for (CK_ULONG i = 0; i < shown; ++i) logDebug("Find object return : ", phObject[i]);
    logDebug("C_FindObjects find object count return : ", count);
    return CKR_OK;
  });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession) {
  return sessionCall("C_FindObjectsFinal", hSession, [](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::search) return refuseNotInitialized(call, session);
    session.activeOperation = Operation::none;
    session.search.cursor = 0;
    return CKR_OK;
  });
}
