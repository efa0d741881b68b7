// RSA with the public exponent 65537, which is the only one that a key pair's record can stand for.
#pragma once

#include "softtoken/crypto_library.h"
#include "softtoken/der.h"

namespace softtoken {

// Numbers are big-endian without leading zeros.
struct RsaPrivateKey {
  Bytes modulus;
  SecretBytes exponent;
  SecretBytes prime1;  // the smaller one, as libgcrypt has it
  SecretBytes prime2;
  SecretBytes coefficient;  // the inverse of prime1 modulo prime2
};

constexpr std::uint8_t rsaPublicExponent[] = {1, 0, 1};

RsaPrivateKey generateRsaKey(std::uint32_t bits);

// Completes a key of which modulus, private exponent and one prime are known, and tries it out. Throws badArgument for
// numbers that do not belong together and for another public exponent.
RsaPrivateKey completeRsaKey(ByteView modulus, ByteView privateExponent, ByteView prime);

// An input as long as the digest of SHA-1, SHA-256, SHA-384 or SHA-512 is signed as that digest, by PKCS#1 v1.5 or by
// PSS with a salt of the same length; any other is padded as it is, which PSS cannot do. The signature is as long as
// the modulus.
Bytes signRsa(const RsaPrivateKey& key, ByteView input, bool pss);

// Throws badSignature unless the signature is that of the input, which is taken as in signing.
void verifyRsa(const RsaPublicKey& key, ByteView input, ByteView signature, bool pss);

// OAEP is with SHA-1 and no label.
Bytes encryptRsa(const RsaPublicKey& key, ByteView message, bool oaep);

// Finds out the padding by itself.
SecretBytes decryptRsa(const RsaPrivateKey& key, ByteView ciphertext);

}  // namespace softtoken
