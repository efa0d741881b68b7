// The ranges of the module's object handles. A key pair is two objects with one record. The low part of a handle is the
// record's number on the device.
#pragma once

#include <cstdint>

#include "devlib/device_constants.h"
#include "pkcs11.h"

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

}  // namespace tavrin
