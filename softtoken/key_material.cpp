#include "softtoken/key_material.h"

#include <algorithm>

#include "softtoken/ec.h"
#include "softtoken/record_io.h"
#include "softtoken/rsa.h"

namespace softtoken {
namespace {

struct KeyKind {
  std::uint32_t keyType;
  std::uint32_t rsaBits;  // 0 for EC
  const Curve* curve;     // null for RSA
};

constexpr KeyKind keyKinds[] = {
    {1, 1024, nullptr}, {2, 2048, nullptr}, {3, 3072, nullptr}, {4, 4096, nullptr},
    {5, 0, &curveP256}, {6, 0, &curveP384}, {7, 0, &curveP521},
};

const KeyKind* findKind(std::uint32_t keyType) {
  const auto* const found = std::ranges::find(keyKinds, keyType, &KeyKind::keyType);
  return found == std::end(keyKinds) ? nullptr : found;
}

const KeyKind& kindOf(std::uint32_t keyType) {
  const KeyKind* kind = findKind(keyType);
  if (!kind) throw Failure(Status::badArgument, "unknown key type " + std::to_string(keyType));
  return *kind;
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

bool isKnownKeyType(std::uint32_t keyType) { return findKind(keyType) != nullptr; }

bool isRsa(std::uint32_t keyType) { return kindOf(keyType).curve == nullptr; }

KeyMaterial generateKeyMaterial(std::uint32_t keyType) {
  const KeyKind& kind = kindOf(keyType);
  if (!kind.curve) return pack(keyType, generateRsaKey(kind.rsaBits));
  EcKey key = generateEcKey(*kind.curve);
  return {keyType, std::move(key.point), std::move(key.scalar)};
}

KeyMaterial importRsaKeyMaterial(ByteView modulus, ByteView privateExponent, ByteView prime) {
  const ByteView number = withoutLeadingZeros(modulus);
  const auto* const kind =
      std::ranges::find_if(keyKinds, [&](const KeyKind& row) { return row.rsaBits == number.size() * 8; });
  require(kind != std::end(keyKinds) && !kind->curve && (number[0] & 0x80) != 0,
          "the modulus has none of the lengths 1024, 2048, 3072 and 4096 bits");
  const ByteView exponent = withoutLeadingZeros(privateExponent);
  const ByteView factor = withoutLeadingZeros(prime);
  require(exponent.size() <= number.size() && factor.size() < number.size(), "the RSA key is too long");
  return pack(kind->keyType, completeRsaKey(number, exponent, factor));
}

Bytes signWith(const KeyMaterial& key, ByteView input, bool pss) {
  const Curve* curve = kindOf(key.keyType).curve;
  if (!curve) return signRsa(unpackRsa(key), input, pss);
  if (pss) refuseKeyType("PSS needs an RSA key");
  return signEcdsa(*curve, {key.publicKey, key.privateKey}, input);
}

void verifyWith(std::uint32_t keyType, ByteView publicKey, ByteView input, ByteView signature, bool pss) {
  const Curve* curve = kindOf(keyType).curve;
  if (curve) {
    if (pss) refuseKeyType("PSS needs an RSA key");
    return verifyEcdsa(*curve, publicKey, input, signature);
  }
  std::optional<RsaPublicKey> key = rsaPublicKeyIn(publicKey);
  if (!key) {
    const ByteView modulus = withoutLeadingZeros(publicKey);
    key = RsaPublicKey{{modulus.begin(), modulus.end()}, {std::begin(rsaPublicExponent), std::end(rsaPublicExponent)}};
  }
  verifyRsa(*key, input, signature, pss);
}

SecretBytes decryptWith(const KeyMaterial& key, ByteView ciphertext) {
  if (!isRsa(key.keyType)) refuseKeyType("decryption needs an RSA key");
  return decryptRsa(unpackRsa(key), ciphertext);
}

SecretBytes deriveWith(const KeyMaterial& key, ByteView peerPoint) {
  const Curve* curve = kindOf(key.keyType).curve;
  if (!curve) refuseKeyType("key agreement needs an EC key");
  return deriveEcdh(*curve, key.privateKey, peerPoint);
}

Bytes encryptFor(ByteView publicKey, std::uint32_t bits, ByteView message, bool oaep) {
  const std::optional<RsaPublicKey> key = rsaPublicKeyIn(publicKey);
  require(key && key->modulus.size() * 8 == bits, "no RSA public key of the length that is asked for");
  return encryptRsa(*key, message, oaep);
}

}  // namespace softtoken
