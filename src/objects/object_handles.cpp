#include "objects/object_handles.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <vector>

#include "devlib/library_instance.h"

namespace tavrin {
namespace {

// Copies: the lists belong to the library, and other threads may change them.
std::vector<TavrinKeyPair> keyPairs(const Session& session) {
  return tavrin_getKeyPairList(session.deviceId(), libraryInstance);
}

std::vector<TavrinCertificate> certificates(const Session& session) {
  return tavrin_getCertificateList(session.deviceId(), libraryInstance);
}

template <typename Record>
const Record* resolve(const std::vector<Record>& records, CK_OBJECT_HANDLE handle, CK_OBJECT_HANDLE base,
                      Record& buffer) {
  if (handle > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  const auto id = static_cast<std::uint32_t>(handle - base);
  const auto found =
      std::find_if(records.begin(), records.end(), [&](const Record& record) { return record.id == id; });
  if (found == records.end()) return nullptr;
  buffer = *found;
  return &buffer;
}

template <typename Record>
CK_OBJECT_HANDLE findHandle(const std::vector<Record>& records, const std::uint8_t (&recordId)[16],
                            CK_OBJECT_HANDLE base) {
  const auto found = std::find_if(records.begin(), records.end(), [&](const Record& record) {
    return std::equal(std::begin(recordId), std::end(recordId), std::begin(record.recordId));
  });
  return found != records.end() ? objectHandle(base, found->id) : 0;
}

}  // namespace

const TavrinKeyPair* resolveKeyPair(const Session& session, CK_OBJECT_HANDLE handle, CK_OBJECT_HANDLE base) {
  return resolve(keyPairs(session), handle, base, resolutionBuffers.keyPair);
}

const TavrinCertificate* resolveCertificate(const Session& session, CK_OBJECT_HANDLE handle, CK_OBJECT_HANDLE base) {
  return resolve(certificates(session), handle, base, resolutionBuffers.certificate);
}

const TavrinKeyPair* resolveEitherHalf(const Session& session, CK_OBJECT_HANDLE handle) {
  return resolveKeyPair(session, handle, isPublicKey(handle) ? publicKeyBase : privateKeyBase);
}

CK_OBJECT_HANDLE findKeyPairHandle(const Session& session, const std::uint8_t (&recordId)[16]) {
  return findHandle(keyPairs(session), recordId, privateKeyBase);
}

CK_OBJECT_HANDLE findCertificateHandle(const Session& session, const std::uint8_t (&recordId)[16]) {
  return findHandle(certificates(session), recordId, certificateBase);
}

}  // namespace tavrin
