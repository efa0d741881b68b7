// ECDSA and ECDH on the NIST curves. Points are uncompressed: 04, X, Y. Any thread may call the functions.
#pragma once

#include "softtoken/crypto_library.h"

namespace softtoken {

struct Curve {
  const char* name;
  unsigned bits;       // of the order and of the field
  std::size_t length;  // bytes of a coordinate, and of a number modulo the order
};

inline constexpr Curve curveP256{"NIST P-256", 256, 32};
inline constexpr Curve curveP384{"NIST P-384", 384, 48};
inline constexpr Curve curveP521{"NIST P-521", 521, 66};

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
