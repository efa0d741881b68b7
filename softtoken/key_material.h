// The operations of key pairs of all types, which call rsa.h or ec.h by the key's type. Any thread may call them.
#pragma once

#include "devlib/device_library.h"
#include "softtoken/crypto_library.h"

namespace softtoken {

// A private key as it is sealed for storage.
struct KeyMaterial {
  std::uint32_t keyType;  // TavrinKeyPair::keyType
  Bytes publicKey;        // TavrinKeyPair::publicKey
  SecretBytes privateKey;
};

// False for an unknown key type.
bool isRsa(std::uint32_t keyType);

// These throw badArgument for an unknown key type.
KeyMaterial generateKeyMaterial(std::uint32_t keyType);

// An RSA key of 1024, 2048, 3072 or 4096 bits with the public exponent 65537; anything else throws badArgument. Numbers
// are big-endian and may have leading zeros.
KeyMaterial importRsaKeyMaterial(ByteView modulus, ByteView privateExponent, ByteView prime);

Bytes signWith(const KeyMaterial& key, ByteView input, bool pss);

// `publicKey` is a SubjectPublicKeyInfo or a bare modulus for RSA, else a bare point. Throws badSignature for a wrong
// signature. signWith and verifyWith throw wrongKeyType for PSS with an EC key.
void verifyWith(std::uint32_t keyType, ByteView publicKey, ByteView input, ByteView signature, bool pss);

// These throw wrongKeyType for a key of the other algorithm.
SecretBytes decryptWith(const KeyMaterial& key, ByteView ciphertext);
SecretBytes deriveWith(const KeyMaterial& key, ByteView peerPoint);

// `publicKey` is the SubjectPublicKeyInfo of an RSA key whose modulus has `bits` bits; throws badArgument otherwise.
Bytes encryptFor(ByteView publicKey, std::uint32_t bits, ByteView message, bool oaep);

}  // namespace softtoken
