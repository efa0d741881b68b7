#include "softtoken/key_material.h"

#include <algorithm>

#include "devlib/device_constants.h"
#include "softtoken/ec.h"
#include "softtoken/record_io.h"
#include "softtoken/rsa.h"

namespace softtoken {
namespace {

using tavrin::KeyAlgorithm;
using tavrin::KeyTypeInfo;

const KeyTypeInfo& typeOf(std::uint32_t keyType) {
  const KeyTypeInfo* type = tavrin::findKeyType(keyType);
  if (!type) throw Failure(Status::badArgument, "unknown key type " + std::to_string(keyType));
  return *type;
}

// Null for RSA.
const Curve* curveOf(std::uint32_t keyType) {
  const tavrin::KeyType type = typeOf(keyType).type;
  for (const Curve* curve : {&curveP256, &curveP384, &curveP521})
    if (type == curve->type) return curve;
  return nullptr;
}

KeyMaterial pack(std::uint32_t keyType, const RsaPrivateKey& key) {
  Writer<SecretBytes> writer;
  for (const SecretBytes* part : {&key.exponent, &key.prime1, &key.prime2, &key.coefficient}) writer.field(*part);
  return {keyType, key.modulus, std::move(writer).take()};
}

RsaPrivateKey unpackRsa(const KeyMaterial& key) {
  Reader reader(key.privateKey);
  const auto next = [&] {
    const ByteView part = reader.field(key.privateKey.size());
    return SecretBytes(part.begin(), part.end());
  };
  RsaPrivateKey result{key.publicKey, {}, {}, {}, {}};
  for (SecretBytes* part : {&result.exponent, &result.prime1, &result.prime2, &result.coefficient}) *part = next();
  return result;
}

[[noreturn]] void refuseKeyType(const char* text) { throw Failure(Status::wrongKeyType, text); }

}  // namespace

bool isRsa(std::uint32_t keyType) {
  const KeyTypeInfo* type = tavrin::findKeyType(keyType);
  return type && type->algorithm == KeyAlgorithm::rsa;
}

KeyMaterial generateKeyMaterial(std::uint32_t keyType) {
  const Curve* curve = curveOf(keyType);
  if (!curve) return pack(keyType, generateRsaKey(typeOf(keyType).bits));
  EcKey key = generateEcKey(*curve);
  return {keyType, std::move(key.point), std::move(key.scalar)};
}

KeyMaterial importRsaKeyMaterial(ByteView modulus, ByteView privateExponent, ByteView prime) {
  const ByteView number = withoutLeadingZeros(modulus);
  const auto* const type = std::ranges::find_if(tavrin::keyTypes, [&](const KeyTypeInfo& row) {
    return row.algorithm == KeyAlgorithm::rsa && row.bits == number.size() * 8;
  });
  require(type != std::end(tavrin::keyTypes) && (number[0] & 0x80) != 0,
          "the modulus has none of the lengths 1024, 2048, 3072 and 4096 bits");
  const ByteView exponent = withoutLeadingZeros(privateExponent);
  const ByteView factor = withoutLeadingZeros(prime);
  require(exponent.size() <= number.size() && factor.size() < number.size(), "the RSA key is too long");
  return pack(codeOf(type->type), completeRsaKey(number, exponent, factor));
}

Bytes signWith(const KeyMaterial& key, ByteView input, bool pss) {
  const Curve* curve = curveOf(key.keyType);
  if (!curve) return signRsa(unpackRsa(key), input, pss);
  if (pss) refuseKeyType("PSS needs an RSA key");
  return signEcdsa(*curve, {key.publicKey, key.privateKey}, input);
}

void verifyWith(std::uint32_t keyType, ByteView publicKey, ByteView input, ByteView signature, bool pss) {
  const Curve* curve = curveOf(keyType);
  if (curve) {
    if (pss) refuseKeyType("PSS needs an RSA key");
    return verifyEcdsa(*curve, publicKey, input, signature);
  }
  std::optional<RsaPublicKey> key = rsaPublicKeyIn(publicKey);
  if (!key) {
    const ByteView modulus = withoutLeadingZeros(publicKey);
    key = RsaPublicKey{{modulus.begin(), modulus.end()}, rsaPublicExponent()};
  }
  verifyRsa(*key, input, signature, pss);
}

SecretBytes decryptWith(const KeyMaterial& key, ByteView ciphertext) {
  if (!isRsa(key.keyType)) refuseKeyType("decryption needs an RSA key");
  return decryptRsa(unpackRsa(key), ciphertext);
}

SecretBytes deriveWith(const KeyMaterial& key, ByteView peerPoint) {
  const Curve* curve = curveOf(key.keyType);
  if (!curve) refuseKeyType("key agreement needs an EC key");
  return deriveEcdh(*curve, key.privateKey, peerPoint);
}

Bytes encryptFor(ByteView publicKey, std::uint32_t bits, ByteView message, bool oaep) {
  const std::optional<RsaPublicKey> key = rsaPublicKeyIn(publicKey);
  require(key && key->modulus.size() * 8 == bits, "no RSA public key of the length that is asked for");
  return encryptRsa(*key, message, oaep);
}

}  // namespace softtoken
