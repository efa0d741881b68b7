// The mechanisms that the token offers, and how the signature mechanisms are carried out.
#pragma once

#include <cstdint>

#include "pkcs11.h"

// The library's hash codes. `none` marks a mechanism whose input goes to the device as the caller gives it.
enum class HashCode : std::int32_t { none = 0, sha1 = 2, sha256 = 3, sha384 = 4, sha512 = 5 };

struct Mechanism {
  CK_MECHANISM_TYPE type;
  CK_ULONG minimumKeySize;  // bits; 0 for digests
  CK_ULONG maximumKeySize;
  CK_FLAGS flags;
  HashCode hash;  // of a digest, of signing, and of verifying in one part
  HashCode hashWhenVerifyingInParts;
  bool pss;
};

// The mechanism's row if its flags include all of `flags`, else null.
const Mechanism* findMechanism(CK_MECHANISM_TYPE type, CK_FLAGS flags = 0);

// Whether the mechanism has a parameter at all.
inline bool hasParameter(const CK_MECHANISM& mechanism) {
  return mechanism.pParameter != nullptr || mechanism.ulParameterLen != 0;
}
