#include "soft_token_fixture.h"

#include <algorithm>

#include "softtoken/certificates.h"
#include "softtoken/key_material.h"
#include "softtoken/record_io.h"
#include "test_platform.h"

namespace fs = std::filesystem;

Bytes fromHex(std::string_view text) {
  Bytes bytes;
  for (std::size_t i = 0; i < text.size(); i += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
  return bytes;
}

Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes whole;
  for (const Bytes& part : parts) whole.insert(whole.end(), part.begin(), part.end());
  return whole;
}

Bytes pattern(std::size_t count) {
  Bytes bytes;
  for (std::size_t i = 0; i < count; ++i) bytes.push_back(static_cast<std::uint8_t>(i * 7 + count));
  return bytes;
}

const RsaKey& rsaKey() {
  static const RsaKey key = [] {
    const softtoken::KeyMaterial made = softtoken::generateKeyMaterial(1);
    softtoken::Reader parts(made.privateKey);
    const auto next = [&] {
      const softtoken::ByteView part = parts.field(128);
      return Bytes(part.begin(), part.end());
    };
    return RsaKey{made.publicKey, next(), next(), next()};
  }();
  return key;
}

Bytes rsaPublicKeyInfo() {
  return joined(
      {fromHex("30819f300d06092a864886f70d010101050003818d0030818902818100"), rsaKey().modulus, fromHex("0203010001")});
}

Bytes certificateInDer() { return softtoken::certificatesInFolder(testData.string(), {".pem"}).at(0).second; }

TavrinCertificate certificateRecord() {
  TavrinCertificate record{};
  const Bytes der = certificateInDer();
  std::ranges::copy(der, record.certificate);
  record.certificateLength = static_cast<std::uint32_t>(der.size());
  return record;
}

Bytes publicKeyOf(const TavrinKeyPair& key) { return {key.publicKey, key.publicKey + key.publicKeyLength}; }

TavrinKeyPair keyPairOf(std::uint32_t keyType, const Bytes& publicKey) {
  TavrinKeyPair key{};
  key.keyType = keyType;
  std::ranges::copy(publicKey, key.publicKey);
  key.publicKeyLength = static_cast<std::uint32_t>(publicKey.size());
  return key;
}

void SoftTokenTest::SetUp() {
  root = testPlatform::freshFolder("softtoken-test");
  testPlatform::setEnvironment("TAVRIN_SOFT_TOKENS", root.string().c_str());
  softtoken::createToken({.name = "one", .label = "First"}, pin, soPin);
  device = otherProcess().state()->serial;
  tavrin_createInstance(&instance);
}

void SoftTokenTest::TearDown() {
  tavrin_releaseInstance(instance);
  fs::remove_all(root);
}

void SoftTokenTest::edit(const std::function<void(softtoken::TokenState&)>& change) const {
  softtoken::Token token = otherProcess();
  token.change(token.unlockForUser(pin), change);
}

int SoftTokenTest::login(const char* password, int kind) {
  return tavrin_validatePassword(device.c_str(), password, kind, &tries, instance);
}

TavrinKeyPair SoftTokenTest::generate(std::uint32_t keyType) {
  TavrinKeyPair key{};
  key.keyType = keyType;
  key.usage = 1;
  EXPECT_EQ(tavrin_generateKeyPair(device.c_str(), pin, &key, instance), ok);
  return key;
}

TavrinKeyPair SoftTokenTest::importRsa() {
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

int SoftTokenTest::importCertificate(TavrinCertificate& certificate, const char* password) {
  return tavrin_importCertificate(device.c_str(), password, &certificate, instance);
}

namespace {

// What a call wrote to the caller's buffer.
template <class Call>
Made written(Call call) {
  Bytes out(1024);
  int length = 0;
  const int status = call(out.data(), &length);
  out.resize(static_cast<std::size_t>(length));
  return {status, out};
}

// What a call left in a buffer of the library.
template <class Call>
Made lent(Call call) {
  std::uint8_t* out = nullptr;
  int length = 0;
  const int status = call(&out, &length);
  return {status, status == ok ? Bytes(out, out + length) : Bytes()};
}

int sizeOf(const Bytes& bytes) { return static_cast<int>(bytes.size()); }

}  // namespace

Made SoftTokenTest::sign(const TavrinKeyPair& key, const Bytes& input, bool pss, const char* password) {
  return written([&](std::uint8_t* out, int* length) {
    return tavrin_signHash(device.c_str(), key.recordId, password, input.data(), sizeOf(input), out, length, false,
                           instance, pss);
  });
}

int SoftTokenTest::verify(const TavrinKeyPair& key, const Bytes& input, const Bytes& signature, bool pss) {
  return tavrin_verifySignatureHash(key.keyType, device.c_str(), input.data(), sizeOf(input), key.publicKey,
                                    static_cast<int>(key.publicKeyLength), signature.data(), sizeOf(signature),
                                    instance, pss);
}

Made SoftTokenTest::encryptRsa(const Bytes& message, PaddingMode padding, const Bytes& key) {
  return written([&](std::uint8_t* out, int* length) {
    return tavrin_encrypt(EncryptionType::rsa1024, padding, message.data(), sizeOf(message), out, length, key.data(),
                          sizeOf(key), instance);
  });
}

Made SoftTokenTest::decrypt(const TavrinKeyPair& key, const Bytes& ciphertext) {
  return lent([&](std::uint8_t** out, int* length) {
    return tavrin_decrypt(device.c_str(), key.recordId, pin, ciphertext.data(), sizeOf(ciphertext), out, length, false,
                          instance);
  });
}

Made SoftTokenTest::derive(const TavrinKeyPair& key, const Bytes& peer) {
  return lent([&](std::uint8_t** out, int* length) {
    return tavrin_ecdhDerive(device.c_str(), key.recordId, pin, peer.data(), sizeOf(peer), out, length, instance);
  });
}
