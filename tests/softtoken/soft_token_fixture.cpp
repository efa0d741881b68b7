#include "soft_token_fixture.h"

#include <algorithm>

#include "test_platform.h"

namespace fs = std::filesystem;

Bytes fromHex(std::string_view text) {
  Bytes bytes;
  for (std::size_t i = 0; i < text.size(); i += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
  return bytes;
}

Bytes pattern(std::size_t count) {
  Bytes bytes;
  for (std::size_t i = 0; i < count; ++i) bytes.push_back(static_cast<std::uint8_t>(i * 7 + count));
  return bytes;
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

Made SoftTokenTest::sign(const TavrinKeyPair& key, const Bytes& input, bool pss, const char* password) {
  Made made{0, Bytes(1024)};
  int length = 0;
  made.status = tavrin_signHash(device.c_str(), key.recordId, password, input.data(), sizeOf(input), made.bytes.data(),
                                &length, false, instance, pss);
  made.bytes.resize(static_cast<std::size_t>(length));
  return made;
}

int SoftTokenTest::verify(const TavrinKeyPair& key, const Bytes& input, const Bytes& signature, bool pss) {
  return tavrin_verifySignatureHash(key.keyType, device.c_str(), input.data(), sizeOf(input), key.publicKey,
                                    static_cast<int>(key.publicKeyLength), signature.data(), sizeOf(signature),
                                    instance, pss);
}
