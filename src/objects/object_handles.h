// Object handles and the records that they name. The module keeps no copy of the token's objects: each use of a handle
// looks it up in the device's current list. A handle stays valid until the object is deleted, by any process.
#pragma once

#include <cstdint>

#include "devlib/device_library.h"
#include "objects/handle_ranges.h"
#include "sessions/session.h"

namespace tavrin {

// The one buffer of each kind that a resolution fills. The next resolution of the kind overwrites it, on any session.
// No lock guards it: applications must not make calls that name objects from two threads at the same time.
struct ResolutionBuffers {
  TavrinKeyPair keyPair;
  TavrinCertificate certificate;
};

extern ResolutionBuffers& resolutionBuffers;

// The record of the session's device whose number is `handle` - `base` in 32-bit arithmetic, or null. A handle of more
// than 32 bits has no record. The pointer is valid until the next resolution of the same kind.
const TavrinKeyPair* resolveKeyPair(const Session& session, CK_OBJECT_HANDLE handle, CK_OBJECT_HANDLE base);
const TavrinCertificate* resolveCertificate(const Session& session, CK_OBJECT_HANDLE handle, CK_OBJECT_HANDLE base);

// The key pair that a handle of either half names.
const TavrinKeyPair* resolveEitherHalf(const Session& session, CK_OBJECT_HANDLE handle);

// The handle of a record that the device has just made, found by its 16-byte `recordId` in the current list; 0 when it
// is not there.
CK_OBJECT_HANDLE findKeyPairHandle(const Session& session, const std::uint8_t (&recordId)[16]);
CK_OBJECT_HANDLE findCertificateHandle(const Session& session, const std::uint8_t (&recordId)[16]);

}  // namespace tavrin
