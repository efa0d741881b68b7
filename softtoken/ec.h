// ECDSA and ECDH on the NIST curves. Points are uncompressed: 04, X, Y. Any thread may call the functions.
#pragma once

#include "devlib/device_constants.h"
#include "softtoken/crypto_library.h"

namespace softtoken {

struct Curve {
  tavrin::KeyType type;
  const char* name;                                         // in libgcrypt
  unsigned bits = tavrin::findKeyType(codeOf(type))->bits;  // of the order and of the field
  std::size_t length = (bits + 7) / 8;                      // bytes of a coordinate, and of a number modulo the order
};

inline constexpr Curve curveP256{tavrin::KeyType::ecP256, "NIST P-256"};
inline constexpr Curve curveP384{tavrin::KeyType::ecP384, "NIST P-384"};
inline constexpr Curve curveP521{tavrin::KeyType::ecP521, "NIST P-521"};

struct EcKey {
  Bytes point;
  SecretBytes scalar;  // as long as the curve's order
};

EcKey generateEcKey(const Curve& curve);

// Signs the input as a digest. If it is longer than the order, only its leftmost bits are used. The signature is r and
// s, each as long as the order.
Bytes signEcdsa(const Curve& curve, const EcKey& key, ByteView input);

// Throws badSignature unless the signature is that of the input, and badArgument when the point is not on the curve.
void verifyEcdsa(const Curve& curve, ByteView point, ByteView input, ByteView signature);

// The X coordinate of the shared point. The peer's point may be in a DER OCTET STRING. Throws badArgument when it is
// not on the curve.
SecretBytes deriveEcdh(const Curve& curve, ByteView scalar, ByteView peerPoint);

}  // namespace softtoken
