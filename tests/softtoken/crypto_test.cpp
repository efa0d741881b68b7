// Cryptographic operations of the software token. The end-to-end tests compare with OpenSSL.
#include <algorithm>

#include "soft_token_fixture.h"
#include "softtoken/der.h"
#include "softtoken/ec.h"
#include "softtoken/rsa.h"
#include "softtoken/rsa_padding.h"

namespace {

constexpr int wrongKeyType = static_cast<int>(softtoken::Status::wrongKeyType);
constexpr int badSignature = static_cast<int>(softtoken::Status::badSignature);
constexpr int badCiphertext = static_cast<int>(softtoken::Status::badCiphertext);

Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes whole;
  for (const Bytes& part : parts) whole.insert(whole.end(), part.begin(), part.end());
  return whole;
}

// The parts of an RSA key of 1024 bits, made once.
struct RsaKey {
  Bytes modulus, privateExponent, prime1, prime2;
};
const RsaKey& rsaKey() {
  static const RsaKey key = [] {
    const softtoken::RsaPrivateKey made = softtoken::generateRsaKey(1024);
    const auto copy = [](softtoken::ByteView part) { return Bytes(part.begin(), part.end()); };
    return RsaKey{made.modulus, copy(made.exponent), copy(made.prime1), copy(made.prime2)};
  }();
  return key;
}

// Its public key as a SubjectPublicKeyInfo.
Bytes rsaPublicKeyInfo() {
  return joined(
      {fromHex("30819f300d06092a864886f70d010101050003818d0030818902818100"), rsaKey().modulus, fromHex("0203010001")});
}

Bytes publicKeyOf(const TavrinKeyPair& key) { return {key.publicKey, key.publicKey + key.publicKeyLength}; }

// The record of another's key pair.
TavrinKeyPair keyPairOf(std::uint32_t keyType, const Bytes& publicKey) {
  TavrinKeyPair key{};
  key.keyType = keyType;
  std::ranges::copy(publicKey, key.publicKey);
  key.publicKeyLength = static_cast<std::uint32_t>(publicKey.size());
  return key;
}

Bytes altered(Bytes bytes) {
  bytes.back() ^= 1;
  return bytes;
}

class TokenCryptoTest : public SoftTokenTest {
 protected:
  TavrinKeyPair importRsa() {
    ImportPFXDetails details{};
    details.label = "imported";
    details.keyType = 2;
    details.modulus = rsaKey().modulus;
    details.privateExponent = rsaKey().privateExponent;
    details.prime1 = rsaKey().prime1;
    EXPECT_EQ(tavrin_importPfx(device.c_str(), pin, &details, instance), ok);
    for (const TavrinKeyPair& key : keyPairs())
      if (std::ranges::equal(key.recordId, details.recordId)) return key;
    ADD_FAILURE() << "the reported record is not in the list";
    return {};
  }

  Made encryptRsa(const Bytes& message, PaddingMode padding, const Bytes& key = rsaPublicKeyInfo()) {
    Made made{0, Bytes(1024)};
    int length = 0;
    made.status = tavrin_encrypt(EncryptionType::rsa1024, padding, message.data(), sizeOf(message), made.bytes.data(),
                                 &length, key.data(), sizeOf(key), instance);
    made.bytes.resize(static_cast<std::size_t>(length));
    return made;
  }

  Made decrypt(const TavrinKeyPair& key, const Bytes& ciphertext) {
    std::uint8_t* out = nullptr;
    int length = 0;
    const int status = tavrin_decrypt(device.c_str(), key.recordId, pin, ciphertext.data(), sizeOf(ciphertext), &out,
                                      &length, false, instance);
    return {status, Bytes(out, out + length)};
  }

  Made derive(const TavrinKeyPair& key, const Bytes& peer) {
    std::uint8_t* out = nullptr;
    int length = 0;
    const int status =
        tavrin_ecdhDerive(device.c_str(), key.recordId, pin, peer.data(), sizeOf(peer), &out, &length, instance);
    return {status, Bytes(out, out + length)};
  }
};

TEST_F(TokenCryptoTest, RsaKeysHaveTheirSizeAndSignWhatFits) {
  for (const std::uint32_t keyType : {1u, 2u, 3u, 4u}) EXPECT_EQ(generate(keyType).publicKeyLength, 128 * keyType);
  const TavrinKeyPair key = importRsa();
  Bytes info = rsaPublicKeyInfo();
  EXPECT_EQ(verify(keyPairOf(1, info), {}, sign(key, {}).bytes), ok);
  info.pop_back();
  EXPECT_EQ(verify(keyPairOf(1, info), {}, sign(key, {}).bytes), badArgument);
  EXPECT_EQ(sign(key, pattern(118)).status, badArgument) << "eleven bytes of padding have no room";
  EXPECT_EQ(sign(key, pattern(35), true).status, badArgument) << "PSS signs digests only";
  EXPECT_EQ(sign(key, pattern(64), true).status, badArgument) << "1024 bits are too few for SHA-512 and its salt";
}

TEST_F(TokenCryptoTest, DecryptsWhicheverPaddingItFinds) {
  const TavrinKeyPair key = importRsa();
  EXPECT_EQ(decrypt(key, altered(encryptRsa(pattern(9), PaddingMode::oaep).bytes)).status, badCiphertext);
  EXPECT_EQ(decrypt(key, rsaKey().modulus).status, badArgument);
  EXPECT_EQ(decrypt(key, pattern(127)).status, badArgument);
  for (const auto& [padding, length] : {std::pair{PaddingMode::pkcs1, 117u}, {PaddingMode::oaep, 86u}}) {
    // Often enough for an OAEP block that looks like PKCS#1 v1.5.
    for (int i = 0; i < 400; ++i)
      ASSERT_EQ(decrypt(key, encryptRsa(pattern(length), padding).bytes).bytes, pattern(length));
    EXPECT_EQ(encryptRsa(pattern(length + 1), padding).status, badArgument);
  }
}

const softtoken::Curve* const curves[] = {&softtoken::curveP256, &softtoken::curveP384, &softtoken::curveP521};

TEST(Der, LengthsBeyondTheEndAreRefused) {
  for (const Bytes& bytes : {Bytes{4}, {4, 0x80, 0}, {4, 2, 1}, {4, 0x81}, {4, 0x82, 1, 0}, {4, 0x84, 1, 0, 0, 0, 0}}) {
    softtoken::ByteView rest = bytes;
    EXPECT_FALSE(softtoken::takeElement(rest)) << bytes.size();
  }
}

TEST(RsaPadding, Pkcs1NeedsEightBytesOfPadding) {
  for (const std::size_t padding : {0u, 7u, 8u, 125u, 126u}) {
    Bytes block(128, 0xFF);
    block[0] = 0;
    block[1] = 2;
    if (2 + padding < block.size()) block[2 + padding] = 0;
    const auto message = softtoken::removeEncryptionPadding(block);
    ASSERT_EQ(message.has_value(), padding == 8 || padding == 125) << padding;
    EXPECT_EQ(message ? message->size() : 0, message ? 125 - padding : 0);
  }
}

TEST_F(TokenCryptoTest, EcdsaTakesTheLeftmostBitsOfItsInput) {
  for (const std::uint32_t keyType : {5u, 6u, 7u}) {
    const softtoken::Curve& curve = *curves[keyType - 5];
    const TavrinKeyPair key = generate(keyType);
    for (const std::size_t length : {0u, 1u, 20u, 32u, 48u, 64u, 66u, 80u}) {
      SCOPED_TRACE(std::string(curve.name) + " " + std::to_string(length));
      const Made made = sign(key, pattern(length));
      EXPECT_EQ(verify(key, pattern(length), made.bytes), ok);
      if (length == 0) continue;
      const bool lastBitCounts = length * 8 <= curve.bits;
      EXPECT_EQ(verify(key, altered(pattern(length)), made.bytes), lastBitCounts ? badSignature : ok);
    }
    EXPECT_EQ(sign(key, pattern(32), true).status, wrongKeyType);
    EXPECT_EQ(decrypt(key, pattern(128)).status, wrongKeyType);
  }
  // The leftmost 521 bits, of which the first eight are zero, as bytes.
  const TavrinKeyPair key = generate(7);
  Bytes input = pattern(80), leftmost(65);
  input[0] = 0;
  for (std::size_t i = 0; i < 65; ++i) leftmost[i] = static_cast<std::uint8_t>(input[i] << 1 | input[i + 1] >> 7);
  EXPECT_EQ(verify(key, leftmost, sign(key, input).bytes), ok);
}

TEST_F(TokenCryptoTest, ImportsOnlyNumbersThatBelongTogether) {
  const TavrinKeyPair key = importRsa();
  EXPECT_STREQ(key.label, "imported");
  EXPECT_EQ(key.keyType, 1u);
  EXPECT_EQ(key.usage, 3u);
  EXPECT_EQ(publicKeyOf(key), rsaKey().modulus);

  ImportPFXDetails good{};
  good.modulus = rsaKey().modulus;
  good.privateExponent = rsaKey().privateExponent;
  good.prime1 = rsaKey().prime2;
  using Details = ImportPFXDetails;
  const Bytes &n = good.modulus, &d = good.privateExponent, &p = good.prime1;
  Bytes otherStart = n, longer = d;
  otherStart[0] ^= 1;
  longer.insert(longer.begin(), 1);
  const std::pair<Bytes Details::*, std::vector<Bytes>> changes[] = {
      {&Details::modulus, {altered(n), otherStart, {n.begin(), n.end() - 1}, {}, Bytes(128)}},
      {&Details::privateExponent, {altered(d), {1}, Bytes(128), {}, longer}},
      {&Details::prime1, {altered(p), n, {1}, Bytes(64), {}}}};
  for (const auto& [number, values] : changes) {
    for (const Bytes& value : values) {
      Details bad = good;
      bad.*number = value;
      EXPECT_EQ(tavrin_importPfx(device.c_str(), pin, &bad, instance), badArgument);
    }
  }
  for (Bytes* number : {&good.modulus, &good.privateExponent, &good.prime1}) number->insert(number->begin(), 70, 0);
  EXPECT_EQ(tavrin_importPfx(device.c_str(), pin, &good, instance), ok) << "the other prime, and leading zeros";
  EXPECT_EQ(keyPairs().size(), 2u);
}

TEST_F(TokenCryptoTest, NoNumberFromOutsideEndsTheProcess) {
  const TavrinKeyPair rsa = importRsa();
  const TavrinKeyPair p521 = generate(7);
  const Bytes rsaSignature = sign(rsa, pattern(32)).bytes;
  const Bytes info = rsaPublicKeyInfo();
  const Bytes modulus = publicKeyOf(rsa);
  const Bytes longExponent =  // longer than the modulus
      joined({fromHex("30820120300d06092a864886f70d01010105000382010d003082010802818100"), modulus, fromHex("028181"),
              Bytes(129, 0x11)});
  std::vector<Bytes> publicKeys{modulus, Bytes(128), Bytes(128, 0xFE), longExponent, {}};
  for (const std::uint8_t exponent : Bytes{0, 1, 2}) {
    publicKeys.push_back(info);
    std::fill(publicKeys.back().end() - 3, publicKeys.back().end() - 1, std::uint8_t{0});
    publicKeys.back().back() = exponent;
  }
  publicKeys[0].back() ^= 1;  // even
  for (const Bytes& key : publicKeys) {
    EXPECT_EQ(verify(keyPairOf(1, key), pattern(32), rsaSignature), badArgument);
    EXPECT_EQ(encryptRsa(pattern(8), PaddingMode::oaep, key).status, badArgument);
  }
  for (const Bytes& signature : {Bytes(), Bytes(128), Bytes(128, 0xFF), modulus, Bytes(127, 1), Bytes(129, 0)})
    EXPECT_EQ(verify(rsa, pattern(32), signature), badSignature);
  for (const Bytes& ciphertext : {Bytes(), Bytes(128), Bytes(128, 0xFF), Bytes(129)})
    EXPECT_EQ(decrypt(rsa, ciphertext).status, badArgument);
  Bytes one(128);
  one.back() = 1;
  EXPECT_EQ(decrypt(rsa, one).status, badArgument);
  EXPECT_EQ(decrypt(rsa, joined({Bytes(1), rsaKey().prime1, Bytes(63)})).status, badCiphertext) << "a prime's multiple";

  for (const std::uint8_t fill : Bytes{0x00, 0x01, 0xFF}) {
    SCOPED_TRACE(fill);
    for (const std::uint32_t keyType : {5u, 6u, 7u}) {
      const std::size_t length = curves[keyType - 5]->length;
      Bytes point(1 + 2 * length, fill);
      point[0] = 4;
      EXPECT_EQ(verify(keyPairOf(keyType, point), pattern(32), Bytes(2 * length, 1)), badArgument);
      EXPECT_EQ(derive(generate(keyType), point).status, badArgument);
    }
    EXPECT_EQ(verify(p521, pattern(32), Bytes(132, fill)), badSignature);
    const Bytes input(80, fill);
    EXPECT_EQ(verify(p521, input, sign(p521, input).bytes), ok);
  }
  for (const Bytes& peer : {Bytes(), Bytes(133, 4), Bytes(136, 4)})
    EXPECT_EQ(derive(p521, peer).status, badArgument) << "neither a point nor one in an octet string";
  EXPECT_EQ(derive(rsa, modulus).status, wrongKeyType);
}

TEST_F(TokenCryptoTest, HashContextsAreValidOnceAndStaleOnesAreRefused) {
  const int lengths[] = {20, 20, 32, 48, 64};
  const std::uint8_t data[3]{};
  void* last = nullptr;
  for (int code = 1; code <= 5; ++code) {
    void* context = nullptr;
    Bytes digest(64);
    int length = 0;
    ASSERT_EQ(tavrin_initHash(device.c_str(), code, &context, instance), ok);
    EXPECT_EQ(tavrin_updateHash(context, data, 3, instance), ok);
    EXPECT_EQ(tavrin_finalHash(context, digest.data(), &length, nullptr), ok);
    EXPECT_EQ(length, lengths[code - 1]);
    for (void* stale : {context, static_cast<void*>(nullptr), static_cast<void*>(&digest)}) {
      EXPECT_EQ(tavrin_updateHash(stale, data, 3, instance), notFound);
      EXPECT_EQ(tavrin_finalHash(stale, digest.data(), &length, instance), notFound);
    }
    EXPECT_NE(context, last);
    last = context;
  }
  void* context = nullptr;
  EXPECT_EQ(tavrin_initHash(device.c_str(), 6, &context, instance), badArgument);
}

}  // namespace
