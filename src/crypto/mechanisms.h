// The mechanisms that the token offers, and how the signature mechanisms are carried out.
#pragma once

#include <cstdint>

#include "devlib/device_constants.h"
#include "pkcs11.h"

namespace tavrin {

struct Mechanism {
  CK_MECHANISM_TYPE type;
  KeySizes keySizes;  // 0 for digests
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

}  // namespace tavrin
