// The only DER structure that the module writes.
#pragma once

#include <cstdint>
#include <vector>

#include "devlib/records.h"

namespace tavrin {

// An RSA SubjectPublicKeyInfo (X.509, PKCS #1) for a big-endian modulus and the exponent 65537. Leading zeros of the
// modulus are kept, and one is added when the top bit is set.
std::vector<std::uint8_t> rsaSubjectPublicKeyInfo(ByteView modulus);

}  // namespace tavrin
