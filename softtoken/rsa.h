// RSA. Key pairs have the public exponent 65537, because their records have no field for another one. Any thread may
// call the functions.
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

// 65537, big-endian.
Bytes rsaPublicExponent();

RsaPrivateKey generateRsaKey(std::uint32_t bits);

// Completes a key from modulus, private exponent and one prime, and signs with it once to check it. Throws badArgument
// for numbers that do not belong together and for another public exponent.
RsaPrivateKey completeRsaKey(ByteView modulus, ByteView privateExponent, ByteView prime);

// An input as long as the digest of SHA-1, SHA-256, SHA-384 or SHA-512 is signed as that digest, by PKCS#1 v1.5 or by
// PSS with a salt of the same length; any other is padded as it is, which PSS cannot do. The signature is as long as
// the modulus.
Bytes signRsa(const RsaPrivateKey& key, ByteView input, bool pss);

// Throws badSignature unless the signature is that of the input, which is treated as in signing, and badArgument for
// what is no RSA public key of 1024 to 4096 bits.
void verifyRsa(const RsaPublicKey& key, ByteView input, ByteView signature, bool pss);

// OAEP is with SHA-1 and no label.
Bytes encryptRsa(const RsaPublicKey& key, ByteView message, bool oaep);

// Tries both paddings, OAEP with SHA-1 and PKCS#1 v1.5. Throws badCiphertext when neither fits, and badArgument for a
// ciphertext that is not as long as the modulus or not between 1 and the modulus.
SecretBytes decryptRsa(const RsaPrivateKey& key, ByteView ciphertext);

}  // namespace softtoken
