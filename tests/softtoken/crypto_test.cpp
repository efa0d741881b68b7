// What the software token computes, against what OpenSSL made of the same keys.
#include <algorithm>

#include "soft_token_fixture.h"
#include "softtoken/ec.h"
#include "vectors.h"

namespace {

Bytes altered(Bytes bytes) {
  bytes.back() ^= 1;
  return bytes;
}

Bytes textBytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST_F(SoftTokenTest, Pkcs1SignaturesAreThoseOfOpenssl) {
  const TavrinKeyPair key = importRsa();
  const std::pair<std::size_t, const char*> rows[] = {
      {20, vectors::pkcs1Sha1},   {32, vectors::pkcs1Sha256}, {48, vectors::pkcs1Sha384},
      {64, vectors::pkcs1Sha512}, {35, vectors::pkcs1Raw35},
  };
  for (const auto& [length, expected] : rows) {
    SCOPED_TRACE(length);
    const Made made = sign(key, pattern(length));
    EXPECT_EQ(made.bytes, fromHex(expected));
    EXPECT_EQ(verify(key, pattern(length), made.bytes), ok);
    EXPECT_EQ(verify(key, altered(pattern(length)), made.bytes), badSignature);
    EXPECT_EQ(verify(key, pattern(length), altered(made.bytes)), badSignature);
  }
  EXPECT_EQ(verify(key, {}, sign(key, {}).bytes), ok);
  EXPECT_EQ(sign(key, pattern(118)).status, badArgument) << "eleven bytes of padding have no room";
}

TEST_F(SoftTokenTest, PssSignaturesHoldADigestOnly) {
  const TavrinKeyPair key = importRsa();
  EXPECT_EQ(verify(key, pattern(32), fromHex(vectors::pssSha256), true), ok);
  EXPECT_EQ(verify(key, pattern(32), fromHex(vectors::pssSha256), false), badSignature);
  for (const std::size_t length : {20u, 32u, 48u}) {
    const Made made = sign(key, pattern(length), true);
    EXPECT_EQ(verify(key, pattern(length), made.bytes, true), ok);
    EXPECT_EQ(verify(key, altered(pattern(length)), made.bytes, true), badSignature);
  }
  EXPECT_EQ(sign(key, pattern(35), true).status, badArgument);
  EXPECT_EQ(sign(key, pattern(64), true).status, badArgument) << "1024 bits are too few for SHA-512 and its salt";
}

TEST_F(SoftTokenTest, VerifiesWithASubjectPublicKeyInfo) {
  const Bytes info = fromHex(vectors::subjectPublicKeyInfo);
  const Bytes input = pattern(32);
  const Bytes signature = fromHex(vectors::pkcs1Sha256);
  for (const std::size_t cut : {0u, 1u, 30u, 140u}) {
    EXPECT_EQ(tavrin_verifySignatureHash(1, device.c_str(), input.data(), 32, info.data(),
                                         static_cast<int>(info.size() - cut), signature.data(), 128, nullptr, false),
              cut == 0     ? ok
              : cut == 140 ? badArgument
                           : badSignature);
  }
}

TEST_F(SoftTokenTest, DecryptsWhicheverPaddingItFinds) {
  const TavrinKeyPair key = importRsa();
  EXPECT_EQ(decrypt(key, fromHex(vectors::ciphertextPkcs1)).bytes, textBytes("by PKCS#1 v1.5"));
  EXPECT_EQ(decrypt(key, fromHex(vectors::ciphertextOaep)).bytes, textBytes("by OAEP"));
  EXPECT_EQ(decrypt(key, altered(fromHex(vectors::ciphertextOaep))).status, badCiphertext);
  EXPECT_EQ(decrypt(key, fromHex(vectors::modulus)).status, badArgument);
  EXPECT_EQ(decrypt(key, pattern(127)).status, badArgument);

  const std::pair<PaddingMode, std::size_t> most[] = {{PaddingMode::pkcs1, 117}, {PaddingMode::oaep, 86}};
  for (const auto& [padding, length] : most) {
    // Often enough that an OAEP block which looks like PKCS#1 v1.5 comes along.
    for (int i = 0; i < 400; ++i)
      ASSERT_EQ(decrypt(key, encryptRsa(pattern(length), padding).bytes).bytes, pattern(length));
    EXPECT_EQ(encryptRsa(pattern(length + 1), padding).status, badArgument);
  }
}

struct CurveRow {
  std::uint32_t keyType;
  const softtoken::Curve& curve;
  const char* scalar;
  const char* point;
  const char* peer;
  const char* secret;
  const char* signature;
};

const CurveRow curveRows[] = {
    {5, softtoken::curveP256, vectors::scalarP256, vectors::pointP256, vectors::peerP256, vectors::secretP256,
     vectors::signatureP256},
    {6, softtoken::curveP384, vectors::scalarP384, vectors::pointP384, vectors::peerP384, vectors::secretP384,
     vectors::signatureP384},
    {7, softtoken::curveP521, vectors::scalarP521, vectors::pointP521, vectors::peerP521, vectors::secretP521,
     vectors::signatureP521},
};

TEST_F(SoftTokenTest, EcdsaTakesTheLeftmostBitsOfItsInput) {
  for (const CurveRow& row : curveRows) {
    SCOPED_TRACE(row.curve.name);
    TavrinKeyPair known{};
    known.keyType = row.keyType;
    const Bytes point = fromHex(row.point);
    std::ranges::copy(point, known.publicKey);
    known.publicKeyLength = static_cast<std::uint32_t>(point.size());
    EXPECT_EQ(verify(known, pattern(80), fromHex(row.signature)), ok);

    const TavrinKeyPair key = generate(row.keyType);
    EXPECT_EQ(key.publicKeyLength, 1 + 2 * row.curve.length);
    for (const std::size_t length : {0u, 1u, 20u, 32u, 48u, 64u, 66u, 80u}) {
      const Made made = sign(key, pattern(length));
      EXPECT_EQ(made.bytes.size(), 2 * row.curve.length);
      EXPECT_EQ(verify(key, pattern(length), made.bytes), ok) << length;
      EXPECT_EQ(verify(known, pattern(length), made.bytes), badSignature);
      const bool lastBitCounts = length > 0 && length * 8 <= row.curve.bits;
      Bytes changed = pattern(length);
      if (length > 0) changed = altered(changed);
      EXPECT_EQ(verify(key, changed, made.bytes), lastBitCounts ? badSignature : ok) << length;
    }
    EXPECT_EQ(sign(key, pattern(32), true).status, wrongKeyType);
    EXPECT_EQ(decrypt(key, pattern(128)).status, wrongKeyType);
  }
}

TEST_F(SoftTokenTest, EcdhGivesTheSecretOfOpenssl) {
  for (const CurveRow& row : curveRows) {
    SCOPED_TRACE(row.curve.name);
    const auto secret = softtoken::deriveEcdh(row.curve, fromHex(row.scalar), fromHex(row.peer));
    EXPECT_EQ(Bytes(secret.begin(), secret.end()), fromHex(row.secret));

    const TavrinKeyPair mine = generate(row.keyType);
    const TavrinKeyPair yours = generate(row.keyType);
    const Bytes point = publicKeyOf(yours);
    Bytes wrapped{0x04};
    if (point.size() >= 0x80) wrapped.push_back(0x81);
    wrapped.push_back(static_cast<std::uint8_t>(point.size()));
    wrapped.insert(wrapped.end(), point.begin(), point.end());
    const Made made = derive(mine, wrapped);
    EXPECT_EQ(made.bytes.size(), row.curve.length);
    EXPECT_EQ(made.bytes, derive(yours, publicKeyOf(mine)).bytes);
    EXPECT_EQ(derive(mine, altered(point)).status, badArgument) << "not on the curve";
    EXPECT_EQ(derive(mine, Bytes(wrapped.begin(), wrapped.end() - 1)).status, badArgument);
  }
  EXPECT_EQ(derive(importRsa(), fromHex(vectors::peerP256)).status, wrongKeyType);
}

TEST_F(SoftTokenTest, ImportsOnlyNumbersThatBelongTogether) {
  const TavrinKeyPair key = importRsa();
  EXPECT_STREQ(key.label, "imported");
  EXPECT_EQ(key.keyType, 1u);
  EXPECT_EQ(key.usage, 3u);
  EXPECT_EQ(publicKeyOf(key), fromHex(vectors::modulus));

  ImportPFXDetails good{};
  good.modulus = fromHex(vectors::modulus);
  good.privateExponent = fromHex(vectors::privateExponent);
  good.prime1 = fromHex(vectors::prime2);
  const std::function<void(ImportPFXDetails&)> changes[] = {
      [](auto& details) { details.modulus = altered(details.modulus); },
      [](auto& details) { details.modulus[0] ^= 1; },
      [](auto& details) { details.modulus.pop_back(); },
      [](auto& details) { details.privateExponent = altered(details.privateExponent); },
      [](auto& details) { details.privateExponent = {1}; },
      [](auto& details) { details.prime1 = altered(details.prime1); },
      [](auto& details) { details.prime1 = details.modulus; },
      [](auto& details) { details.prime1 = {1}; },
      [](auto& details) { details.prime1.clear(); },
      [](auto& details) { details.modulus.clear(); },
  };
  for (const auto& change : changes) {
    ImportPFXDetails bad = good;
    change(bad);
    EXPECT_EQ(tavrin_importPfx(device.c_str(), pin, &bad, instance), badArgument);
  }
  good.modulus.insert(good.modulus.begin(), 0);
  EXPECT_EQ(tavrin_importPfx(device.c_str(), pin, &good, instance), ok) << "the other prime, and a sign byte";
  EXPECT_EQ(keyPairs().size(), 2u);
}

TEST_F(SoftTokenTest, EveryKeyTypeCanBeGeneratedAndUsed) {
  const std::size_t lengths[] = {128, 256, 384, 512, 65, 97, 133};
  for (std::uint32_t keyType = 1; keyType <= 7; ++keyType) {
    SCOPED_TRACE(keyType);
    const TavrinKeyPair key = generate(keyType);
    EXPECT_EQ(key.publicKeyLength, lengths[keyType - 1]);
    EXPECT_EQ(key.keyIdLength, 20u);
    EXPECT_EQ(verify(key, pattern(32), sign(key, pattern(32)).bytes), ok);
  }
}

TEST_F(SoftTokenTest, HashContextsAreGoodOnceAndStaleOnesHarmless) {
  const std::size_t lengths[] = {20, 20, 32, 48, 64};
  const Bytes data = textBytes("abc");
  void* last = nullptr;
  for (int code = 1; code <= 5; ++code) {
    void* context = nullptr;
    Bytes digest(64);
    int length = 0;
    ASSERT_EQ(tavrin_initHash(device.c_str(), code, &context, instance), ok);
    EXPECT_EQ(tavrin_updateHash(context, data.data(), 3, instance), ok);
    EXPECT_EQ(tavrin_finalHash(context, digest.data(), &length, nullptr), ok);
    EXPECT_EQ(static_cast<std::size_t>(length), lengths[code - 1]);
    const Bytes start = fromHex(code < 3 ? "a9993e36" : code == 3 ? "ba7816bf" : code == 4 ? "cb00753f" : "ddaf35a1");
    EXPECT_TRUE(std::equal(start.begin(), start.end(), digest.begin()));
    for (void* stale : {context, static_cast<void*>(nullptr), static_cast<void*>(&digest)}) {
      EXPECT_EQ(tavrin_updateHash(stale, data.data(), 3, instance), notFound);
      EXPECT_EQ(tavrin_finalHash(stale, digest.data(), &length, instance), notFound);
    }
    EXPECT_NE(context, last);
    last = context;
  }
  void* context = nullptr;
  EXPECT_EQ(tavrin_initHash(device.c_str(), 6, &context, instance), badArgument);
}

}  // namespace
