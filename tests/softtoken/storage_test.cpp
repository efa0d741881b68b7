// Stored tokens: devices, passwords, objects, and changes by other processes.
#include <algorithm>
#include <fstream>
#include <thread>

#include "soft_token_fixture.h"
#include "softtoken/certificates.h"
#include "softtoken/stored_file.h"
#include "softtoken/token_objects.h"
#include "test_platform.h"

namespace {

namespace fs = std::filesystem;
using Devices = std::vector<std::string>;

constexpr int full = 40;
// A root certificate, and a token of the first format with a P-256 key pair and the fixture's passwords.
const fs::path testData = TEST_DATA;

Bytes certificateInDer() { return softtoken::certificatesInFolder(testData.string(), {".pem"}).at(0).second; }

TavrinCertificate certificateRecord() {
  TavrinCertificate record{};
  const Bytes der = certificateInDer();
  std::ranges::copy(der, record.certificate);
  record.certificateLength = static_cast<std::uint32_t>(der.size());
  return record;
}

Devices devices() { return tavrin_getConnectedDeviceList(false, nullptr); }

TEST_F(SoftTokenTest, ListsWholeConnectedTokensBySerial) {
  softtoken::createToken({.name = "two", .label = "Second", .firmware = "1.9.9"}, pin, soPin);
  const std::string second = softtoken::Token(tokenFolder("two")).state()->serial;
  Devices both{device, second};
  std::ranges::sort(both);

  fs::create_directory(root / "empty");
  fs::create_directory(root / "half");
  fs::copy_file(tokenFolder() / "tries", root / "half" / "tries");
  fs::copy(tokenFolder(), root / "damaged");
  fs::resize_file(root / "damaged" / "token", 200);
  fs::copy(tokenFolder(), root / ".new-three");
  std::ofstream(root / "file") << "no folder";
  std::ofstream(tokenFolder() / "token.new") << "left over";
  EXPECT_EQ(devices(), both);
  EXPECT_EQ(generate(5).id, 1u) << "over a file that a killed writer left";

  const TokenInfo info = tavrin_getTokenInfo(second.c_str(), nullptr);
  EXPECT_EQ(second.size(), 16u);
  EXPECT_EQ(std::tie(info.serialNumber, info.label, info.model, info.firmwareVersion, info.remainingRetries),
            std::tuple(second, "Second", "Soft token", "1.9.9", 10));
  EXPECT_EQ(tavrin_getTokenInfo("nobody", instance).serialNumber, "");
  const softtoken::MasterKey key = otherProcess().unlockForUser(pin).masterKey;
  EXPECT_NE(softtoken::Token(tokenFolder("two")).unlockForUser(pin).masterKey, key);
  EXPECT_NE(seal(key, key, {}), seal(key, key, {})) << "the same nonce twice";

  EXPECT_EQ(tavrin_initDevice(second.c_str(), true, instance), ok);
  softtoken::removeToken("two");
  EXPECT_EQ(devices(), Devices{device});
  EXPECT_EQ(tavrin_initDevice(second.c_str(), true, instance), deviceFault);
  EXPECT_FALSE(fs::exists(root / ".new-three")) << "the next removal clears away what a killed process has left";
}

TEST_F(SoftTokenTest, NamesThatLeadElsewhereAreRefused) {
  for (const char* name : {"", ".hidden", "..", "a/b", "a\\b", "c:", "end.", " a", "a\nb", "NUL.txt", "lpt\xC2\xB2"})
    EXPECT_THROW(softtoken::createToken({.name = name, .label = "x"}, pin, soPin), softtoken::Failure) << name;
  for (const std::string& password : {std::string("123"), std::string(64, 'p')})
    EXPECT_THROW(softtoken::createToken({.name = "x", .label = "x"}, password, soPin), softtoken::Failure);
  const fs::path::value_type noText[] = {static_cast<fs::path::value_type>(0xD8F1), 0};  // half a character of UTF-16
  std::error_code ignored;
  EXPECT_NO_THROW(softtoken::nameOf({root / noText, ignored}));
}

TEST_F(SoftTokenTest, WrongPasswordsCountUntilTheRightOneOrTheLock) {
  const TavrinKeyPair key = generate(5);
  EXPECT_EQ(answer("wrong"), Answer(wrongPassword, 9));
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(sign(key, pattern(32), false, "wrong").status, wrongPassword) << "refused once, so no try is spent";
    EXPECT_EQ(sign(key, pattern(32), false, "wrong too").status, wrongPassword);
  }
  EXPECT_EQ(otherProcess().tries().user, 8u) << "what is counted is stored";
  EXPECT_EQ(answer(""), Answer(badArgument, 8));
  EXPECT_EQ(login(pin), ok);
  EXPECT_EQ(otherProcess().tries().user, 10u);

  for (int left = 9; left >= 0; --left) {
    EXPECT_EQ(sign(key, pattern(32)).status, ok) << "which gives no try back";
    EXPECT_FALSE(otherProcess().unlockForUser(pin).masterKey.empty()) << "nor does this";
    EXPECT_EQ(answer("wrong"), Answer(wrongPassword, left));
  }
  EXPECT_EQ(answer(pin), Answer(locked, 0));
  EXPECT_EQ(sign(key, pattern(32)).status, locked) << "though this process knows the password";
  EXPECT_EQ(tavrin_getTokenInfo(device.c_str(), instance).remainingRetries, 0);

  EXPECT_EQ(answer("wrong", 2), Answer(wrongPassword, 9));
  EXPECT_EQ(answer(soPin, 2), Answer(ok, 10));
  EXPECT_EQ(login(soPin, 3), badArgument);
  softtoken::Token other = otherProcess();
  EXPECT_THROW(other.setUserPassword(softtoken::Role::securityOfficer, "wrong", "second", tries), softtoken::Failure);
  other.setUserPassword(softtoken::Role::securityOfficer, soPin, "second", tries);
  EXPECT_EQ(login(pin), wrongPassword);
  EXPECT_EQ(sign(key, pattern(32), false, "second").status, ok) << "the keys outlive the password";
}

TEST_F(SoftTokenTest, APasswordChangeEndsTheOldPasswordEverywhere) {
  const TavrinKeyPair key = generate(5);
  const auto change = [&](const char* from, const char* to) {
    return tavrin_changeUserPassword(device.c_str(), from, to, &tries, false, false, instance);
  };
  EXPECT_FALSE(change("wrong", "second"));
  EXPECT_EQ(tries, 9);
  EXPECT_FALSE(change(pin, "abc"));
  EXPECT_EQ(tries, 9) << "a bad new password costs no try";
  EXPECT_TRUE(change(pin, "second"));
  EXPECT_EQ(sign(key, pattern(32)).status, wrongPassword);
  EXPECT_EQ(sign(key, pattern(32), false, "second").status, ok);

  otherProcess().setUserPassword(softtoken::Role::user, "second", "third", tries);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(sign(key, pattern(32), false, "second").status, wrongPassword);
  EXPECT_EQ(otherProcess().tries().user, 10u) << "a process that does not know of the change must not lock the token";
  EXPECT_EQ(answer("second"), Answer(wrongPassword, 9));
  EXPECT_EQ(sign(key, pattern(32), false, "third").status, ok);
  for (const char* next : {"fourth", "fifth"}) {
    otherProcess().setUserPassword(softtoken::Role::securityOfficer, soPin, next, tries);
    EXPECT_EQ(keyPairs().size(), 1u);
  }
  EXPECT_EQ(sign(key, pattern(32), false, "third").status, wrongPassword);
  EXPECT_EQ(otherProcess().tries().user, 9u) << "only the password of just before is known";

  softtoken::Token token = otherProcess();
  EXPECT_THROW(token.unlockForUser("sixth"), softtoken::Failure);
  otherProcess().setUserPassword(softtoken::Role::securityOfficer, soPin, "sixth", tries);
  fs::rename(tokenFolder() / "token", root / "aside");
  EXPECT_THROW(token.state(), softtoken::Failure);
  fs::rename(root / "aside", tokenFolder() / "token");
  EXPECT_FALSE(token.unlockForUser("sixth").masterKey.empty()) << "wrong for another lock only";
}

// The file of the token as an attacker without a password writes it: with a hash that fits.
void forge(const fs::path& file, Bytes content) {
  const Bytes hash = softtoken::hashOf(GCRY_MD_SHA256, content);
  content.insert(content.end(), hash.begin(), hash.end());
  softtoken::replaceFile(file, content);
}

TEST_F(SoftTokenTest, OnlyAWrongPasswordSpendsATry) {
  const TavrinKeyPair key = generate(5);
  const auto expectFault = [&](const char* what) {
    SCOPED_TRACE(what);
    EXPECT_EQ(answer(pin), Answer(deviceFault, 10));
    EXPECT_EQ(sign(key, pattern(32)).status, deviceFault);
    EXPECT_EQ(otherProcess().tries().user, 10u);
    EXPECT_FALSE(fs::exists(tokenFolder() / "tries.before"));
  };
  const fs::path file = tokenFolder() / "token";
  const Bytes whole = softtoken::readFile(file, 1 << 20).value();
  Bytes changed(whole.begin(), whole.end() - 32);
  changed[4 + 20 + 16 + 4] ^= 0x20;  // the label
  softtoken::Token opened = otherProcess();
  const softtoken::UnlockedState unlocked = opened.unlockForUser(pin);
  forge(file, changed);
  expectFault("another label");
  EXPECT_THROW(opened.change(unlocked, [](softtoken::TokenState&) {}), softtoken::Failure) << "authenticates nothing";
  Bytes withoutProof(whole.begin(), whole.end() - 64);
  withoutProof[18] = '1';
  forge(file, withoutProof);
  expectFault("as if of a time without proofs");
  softtoken::replaceFile(file, whole);
  EXPECT_EQ(login(pin), ok);
  EXPECT_EQ(sign(key, pattern(32)).status, ok);
  edit([](softtoken::TokenState& state) { state.keyPairs[0].publicKey[5] ^= 1; });
  EXPECT_EQ(sign(key, pattern(32)).status, deviceFault) << "a private key belongs to its public key";
  edit([](softtoken::TokenState& state) { state.user.salt.clear(); });
  expectFault("a lock that no password opens");
  EXPECT_EQ(sign(key, pattern(32), false, "never used before").status, deviceFault);
  EXPECT_EQ(otherProcess().tries().user, 10u);
}

TEST_F(SoftTokenTest, TokensOfTheFirstFormatStillOpen) {
  fs::copy(testData / "first_format", root / "old");
  device = "E81A589152E116E0";
  EXPECT_EQ(sign(keyPairs().at(0), pattern(32)).status, ok);
  const std::uint8_t* id = keyPairs().at(0).recordId;
  EXPECT_EQ(tavrin_updateKeyPairDetails(device.c_str(), id, pin, "new", nullptr, 0, instance), ok);
  softtoken::Token token(root / "old");
  EXPECT_TRUE(isAuthentic(*token.state(), token.unlockForUser(pin).masterKey)) << "a change authenticates the file";
  const softtoken::TokenState before = *token.state();
  token.setUserPassword(softtoken::Role::securityOfficer, soPin, "second", tries);
  EXPECT_EQ(before.user.cost.cost, 1u << 14);
  EXPECT_EQ(token.state()->user.cost.cost, 1u << 15);
  EXPECT_EQ(sign(keyPairs().at(0), pattern(32), false, "second").status, ok);
}

TEST_F(SoftTokenTest, AnotherTokenUnderTheSameNameIsLeftAlone) {
  softtoken::Token token = otherProcess();
  const softtoken::UnlockedState unlocked = token.unlockForUser(pin);
  softtoken::removeToken("one");
  softtoken::createToken({.name = "one", .label = "Second"}, pin, soPin);
  const Bytes whole = softtoken::readFile(tokenFolder() / "token", 1 << 20).value();
  EXPECT_THROW(token.change(unlocked, [](softtoken::TokenState& state) { state.capacity = 1; }), softtoken::Failure);
  EXPECT_THROW(token.setUserPassword(softtoken::Role::user, "wrong", "second", tries), softtoken::Failure);
  EXPECT_EQ(softtoken::readFile(tokenFolder() / "token", 1 << 20), whole);
  EXPECT_EQ(otherProcess().tries().user, 10u);
  EXPECT_EQ(login(pin), deviceFault);
  device = otherProcess().state()->serial;
  EXPECT_EQ(devices(), Devices{device});
  EXPECT_EQ(login(pin), ok);
}

TEST_F(SoftTokenTest, AResetMakesANewTokenOrLeavesTheOldOne) {
  generate(5);
  fs::create_directory(tokenFolder() / "token.new");
  EXPECT_THROW(softtoken::resetToken("one", "second", soPin), softtoken::Failure);
  fs::remove(tokenFolder() / "token.new");
  EXPECT_EQ(answer("wrong"), Answer(wrongPassword, 9));
  EXPECT_EQ(keyPairs().size(), 1u);
  softtoken::resetToken("one", "second", soPin);
  EXPECT_EQ(answer("second"), Answer(deviceFault, 9)) << "another serial number";
  device = otherProcess().state()->serial;
  EXPECT_EQ(otherProcess().state()->label, "First");
  EXPECT_EQ(answer("second"), Answer(ok, 10));
  EXPECT_TRUE(keyPairs().empty());
}

TEST_F(SoftTokenTest, FilesBoundTheWorkThatTheyCause) {
  const Bytes key(32);
  using Cost = softtoken::ScryptCost;
  const auto decodeWith = [&](Cost cost) {
    softtoken::TokenState state = *otherProcess().state();
    state.user.cost = cost;
    return softtoken::decodeTokenState(encodeTokenState(state, key));
  };
  EXPECT_TRUE(isAuthentic(decodeWith({1u << 16, 2}), key));
  for (const Cost cost : {Cost{1u << 17, 1}, {1u << 16, 3}, {1u << 14, 9}, {3u << 14, 1}})
    EXPECT_THROW(decodeWith(cost), softtoken::Failure) << cost.cost << ' ' << cost.parallelism;
}

TEST_F(SoftTokenTest, NobodyWaitsForeverOrWritesToTheWorkingFolder) {
  const fs::path file = root / "lock";
  std::optional<softtoken::FileLock> held(std::in_place, file);
  EXPECT_THROW(softtoken::FileLock(file, std::chrono::milliseconds(30)), softtoken::Failure);
  std::thread holder([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    held.reset();
  });
  EXPECT_NO_THROW((softtoken::FileLock(file)));
  holder.join();

  // One of them names the user's folder on this system.
  const auto setFolders = [](const char* value) {
    for (const char* name : {"HOME", "LOCALAPPDATA"}) testPlatform::setEnvironment(name, value);
  };
  testPlatform::setEnvironment("TAVRIN_SOFT_TOKENS", nullptr);
  setFolders(root.string().c_str());
  EXPECT_TRUE(softtoken::textOf(softtoken::tokenRoot()).starts_with(root.string()));
  setFolders(nullptr);
  testPlatform::setEnvironment("XDG_DATA_HOME", "relative");
  EXPECT_EQ(devices(), Devices{});
}

TEST_F(SoftTokenTest, KeyPairsKeepTheirDetails) {
  TavrinKeyPair key{};
  key.keyType = 5;
  key.usage = 1;
  std::ranges::fill(key.label, 'L');  // no NUL
  key.keyId[0] = 7;
  key.keyIdLength = 1;
  ASSERT_EQ(tavrin_generateKeyPair(device.c_str(), pin, &key, instance), ok);
  EXPECT_EQ(std::string(key.label), std::string(131, 'L'));
  const Bytes newId = pattern(128);
  const auto update = [&](const char* label, int idLength) {
    return tavrin_updateKeyPairDetails(device.c_str(), key.recordId, pin, label, newId.data(), idLength, instance);
  };
  EXPECT_EQ(update("new", 0), ok);
  EXPECT_STREQ(keyPairs().at(0).label, "new");
  EXPECT_EQ(keyPairs().at(0).keyIdLength, 1u);
  EXPECT_EQ(update("", 128), ok);
  EXPECT_STREQ(keyPairs().at(0).label, "new");
  EXPECT_TRUE(std::ranges::equal(keyPairs().at(0).keyId, newId));
  EXPECT_EQ(update("", 129), badArgument);
  EXPECT_EQ(update("", 1), ok);
  EXPECT_EQ(keyPairs().at(0).keyId[1], 0) << "the rest of a longer ID";

  const std::vector<TavrinKeyPair>& listed = keyPairs();
  EXPECT_EQ(tavrin_deleteKeyPair(device.c_str(), key.recordId, "wrong", false, instance), wrongPassword);
  EXPECT_EQ(tavrin_deleteKeyPair(device.c_str(), key.recordId, pin, false, instance), ok);
  EXPECT_EQ(listed.at(0).id, 1u) << "a list stays as it was until it is asked for again";
  EXPECT_TRUE(keyPairs().empty());
  EXPECT_EQ(tavrin_deleteKeyPair(device.c_str(), key.recordId, pin, false, instance), notFound);
  EXPECT_EQ(sign(key, pattern(32)).status, notFound);
  EXPECT_EQ(generate(5).id, 2u) << "an old handle names no new key";
}

TEST_F(SoftTokenTest, OneCertificateIsOneRecordAndAFullTokenTakesNothingMore) {
  edit([](softtoken::TokenState& state) { state.capacity = 2; });
  TavrinCertificate certificate = certificateRecord();
  TavrinCertificate second = certificateRecord();
  const auto importCertificate = [&](TavrinCertificate& record) {
    return tavrin_importCertificate(device.c_str(), pin, &record, instance);
  };
  EXPECT_EQ(importCertificate(certificate), ok);
  generate(5);
  TavrinKeyPair key{};
  key.keyType = 5;
  EXPECT_EQ(tavrin_generateKeyPair(device.c_str(), pin, &key, instance), full);
  softtoken::setLabel(second.label, "again");
  second.certId[0] = 9;
  second.certIdLength = 1;
  EXPECT_EQ(importCertificate(second), ok) << "it is there already";
  EXPECT_TRUE(std::ranges::equal(certificate.recordId, second.recordId));
  EXPECT_EQ(importCertificate(certificate), ok) << "without label and ID";
  ASSERT_EQ(certificates().size(), 1u);
  EXPECT_STREQ(certificates()[0].label, "again");
  EXPECT_EQ(certificates()[0].certIdLength, 1u);
  EXPECT_EQ(certificates()[0].certId[0], 9);
  second.certificate[second.certificateLength - 1] ^= 1;
  EXPECT_EQ(importCertificate(second), full);
  EXPECT_EQ(tavrin_deleteCertificate(device.c_str(), certificate.recordId, pin, instance), ok);
  EXPECT_EQ(tavrin_deleteCertificate(device.c_str(), certificate.recordId, pin, instance), notFound);
  EXPECT_TRUE(certificates().empty());
  EXPECT_EQ(tavrin_generateKeyPair(device.c_str(), pin, &key, instance), ok);

  certificate.certificate[0] = 0x31;
  EXPECT_EQ(importCertificate(certificate), badArgument);
  for (const std::uint32_t length : {second.certificateLength + 1, 3073u}) {
    second.certificateLength = length;
    EXPECT_EQ(importCertificate(second), badArgument);
  }
}

TEST_F(SoftTokenTest, NumbersWrapToTheLowestFreeOne) {
  generate(5);
  const TavrinKeyPair second = generate(5);
  edit([](softtoken::TokenState& state) { state.lastKeyPairId = 4094; });
  EXPECT_EQ(generate(5).id, 4095u);
  EXPECT_EQ(generate(5).id, 3u);
  ASSERT_EQ(tavrin_deleteKeyPair(device.c_str(), second.recordId, pin, false, instance), ok);
  EXPECT_EQ(generate(5).id, 2u);
}

TEST_F(SoftTokenTest, TwoProcessesAndManyThreadsLoseNothing) {
  constexpr int rounds = 8;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int number = 0; number < 3; ++number) {
    threads.emplace_back([&] {
      const TavrinKeyPair key = generate(5);
      for (int i = 0; i < rounds; ++i) {
        EXPECT_EQ(verify(key, pattern(32), sign(key, pattern(32)).bytes), ok);
        EXPECT_EQ(generate(5).publicKeyLength, 65u);
        EXPECT_GE(keyPairs().size(), 2u);
      }
    });
  }
  threads.emplace_back([&] {
    softtoken::Token other = otherProcess();
    const softtoken::UnlockedState unlocked = other.unlockForUser(pin);
    for (std::uint8_t i = 1; i <= rounds; ++i) {
      other.change(unlocked, [&](softtoken::TokenState& state) {
        TavrinCertificate certificate = certificateRecord();
        certificate.certificate[0] = i;
        softtoken::addCertificate(state, certificate);
      });
      EXPECT_EQ(devices(), Devices{device});
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(keyPairs().size(), 3u * (1 + rounds));
  EXPECT_EQ(certificates().size(), static_cast<std::size_t>(rounds));
  EXPECT_EQ(otherProcess().tries().user, 10u);
}

TEST_F(SoftTokenTest, ReadsCertificatesAndTheFilesThatHoldThem) {
  const Bytes der = certificateInDer();
  CertificateDetails details{};
  EXPECT_EQ(tavrin_getCertificateDetails(der.data(), static_cast<int>(der.size()), &details, nullptr), ok);
  EXPECT_EQ(details.subjectName, "CN=Example Root,O=Example,C=IN");
  EXPECT_EQ(details.issuerName, details.subjectName);
  EXPECT_EQ(tavrin_getCertificateSerialDER(der.data(), static_cast<int>(der.size()), nullptr), fromHex("020400c0ffee"));
  const Bytes subject = tavrin_getCertificateSubject(der.data(), static_cast<int>(der.size()), nullptr);
  EXPECT_EQ(subject, tavrin_getCertificateIssuer(der.data(), static_cast<int>(der.size()), nullptr));
  EXPECT_EQ(subject.at(0), 0x30);
  for (int length = 0; length < static_cast<int>(der.size()); ++length)
    EXPECT_EQ(tavrin_getCertificateDetails(der.data(), length, &details, nullptr), badArgument) << length;

  const fs::path folder = root / fs::path(u8"Zertifikäte");
  fs::create_directories(folder / "folder.cer");
  const std::string whole(der.begin(), der.end());
  const Bytes file = *softtoken::readFile(testData / "root.pem", 4096);
  const std::string pem(file.begin(), file.end());
  const std::pair<const char*, std::string> files[] = {{"a.pem", "bag\n" + pem + pem},
                                                       {"b.CER", whole},
                                                       {"c.txt", whole},
                                                       {"d.der", ""},
                                                       {"e.pem", std::string(4096, 'x')},
                                                       {"f.der", std::string((1 << 20) + 1, '0')}};
  for (const auto& [name, content] : files) std::ofstream(folder / name, std::ios::binary) << content;
  const std::u8string utf8 = folder.u8string();
  const auto found =
      tavrin_getFilesWithExtensionsAndConvertDER({utf8.begin(), utf8.end()}, {".cer", ".der", ".pem", ".crt"}, nullptr);
  const std::vector<std::pair<std::string, Bytes>> expected{{"a.pem", der}, {"b.CER", der}};
  EXPECT_EQ(found, expected);
  EXPECT_TRUE(tavrin_getFilesWithExtensionsAndConvertDER("/no such folder", {".cer"}, nullptr).empty());
}

TEST_F(SoftTokenTest, OddArgumentsAreRefused) {
  const TavrinKeyPair key = generate(5);
  const char* name = device.c_str();
  std::uint8_t bytes[64]{};
  std::uint8_t* out = nullptr;
  int length = 0;
  void* context = nullptr;
  const std::uint8_t* id = key.recordId;
  const Bytes der = certificateInDer();
  const int statuses[] = {
      tavrin_initDevice(nullptr, true, instance),
      tavrin_validatePassword(name, nullptr, 1, &length, instance),
      tavrin_validatePassword(name, pin, 1, nullptr, instance),
      tavrin_generateKeyPair(name, pin, nullptr, instance),
      tavrin_deleteKeyPair(name, nullptr, pin, false, instance),
      tavrin_updateKeyPairDetails(name, id, pin, "x", nullptr, 1, instance),
      tavrin_importCertificate(name, pin, nullptr, instance),
      tavrin_deleteCertificate(name, nullptr, pin, instance),
      tavrin_importPfx(name, pin, nullptr, instance),
      tavrin_getCertificateDetails(der.data(), static_cast<int>(der.size()), nullptr, nullptr),
      tavrin_initHash(name, 3, nullptr, instance),
      tavrin_initHash(nullptr, 3, &context, instance),
      tavrin_signHash(name, id, pin, bytes, -1, bytes, &length, false, instance, false),
      tavrin_signHash(name, id, pin, nullptr, 1, bytes, &length, false, instance, false),
      tavrin_signHash(name, id, nullptr, bytes, 1, bytes, &length, false, instance, false),
      tavrin_signHash(name, id, pin, bytes, 1, nullptr, &length, false, instance, false),
      tavrin_verifySignatureHash(8, name, bytes, 32, bytes, 64, bytes, 64, instance, false),
      tavrin_verifySignatureHash(1, name, bytes, 32, nullptr, 0, bytes, 64, instance, false),
      tavrin_encrypt(EncryptionType::rsa2048, PaddingMode{2}, bytes, 1, bytes, &length, bytes, 64, instance),
      tavrin_encrypt(EncryptionType{0}, PaddingMode::pkcs1, bytes, 1, bytes, &length, bytes, 64, instance),
      tavrin_decrypt(name, id, pin, bytes, 64, nullptr, &length, false, instance),
      tavrin_ecdhDerive(name, id, pin, key.publicKey, static_cast<int>(key.publicKeyLength), &out, nullptr, instance),
      tavrin_generateRamdomNumber(name, -1, bytes, true, nullptr),
      tavrin_generateRamdomNumber(name, 8, nullptr, true, nullptr),
  };
  for (std::size_t i = 0; i < std::size(statuses); ++i) EXPECT_EQ(statuses[i], badArgument) << i;
  EXPECT_EQ(tavrin_generateRamdomNumber("nobody", 8, bytes, true, nullptr), deviceFault);
  EXPECT_EQ(tavrin_generateRamdomNumber(name, 64, bytes, true, nullptr), ok);
  EXPECT_GT(std::ranges::count_if(bytes, [](std::uint8_t byte) { return byte != 0; }), 32);
  EXPECT_TRUE(tavrin_getKeyPairList(nullptr, nullptr).empty());
  EXPECT_TRUE(tavrin_getCertificateList("nobody", nullptr).empty());
  tavrin_createInstance(nullptr);
  tavrin_releaseInstance(nullptr);
  tavrin_releaseInstance(bytes);
}

}  // namespace
