// Object handles and the records that they name. The module keeps no copy of the token's objects: each use of a handle
// looks it up in the device's current list. A handle stays valid until the object is deleted, by any process.
//
// A key pair is two objects with one record. The low part of a handle is the record's number on the device.
#pragma once

#include <cstdint>

#include "devlib/device_library.h"
#include "pkcs11.h"
#include "sessions/session.h"

namespace tavrin {

inline constexpr CK_OBJECT_HANDLE privateKeyBase = 0x70000000;
inline constexpr CK_OBJECT_HANDLE publicKeyBase = 0x70001000;
inline constexpr CK_OBJECT_HANDLE certificateBase = 0x70002000;
inline constexpr CK_OBJECT_HANDLE derivedSecretBase = 0x70003000;

constexpr bool isPrivateKey(CK_OBJECT_HANDLE handle) { return handle >= privateKeyBase && handle < publicKeyBase; }
constexpr bool isPublicKey(CK_OBJECT_HANDLE handle) { return handle >= publicKeyBase && handle < certificateBase; }
constexpr bool isKey(CK_OBJECT_HANDLE handle) { return isPrivateKey(handle) || isPublicKey(handle); }

// The handle of the record `id`. Handles have 32 bits for every size of CK_ULONG; too large an id wraps.
constexpr CK_OBJECT_HANDLE objectHandle(CK_OBJECT_HANDLE base, std::uint32_t id) {
  return static_cast<std::uint32_t>(base + id);
}

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
