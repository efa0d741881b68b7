// No secret stays in memory after its use. Another process uses a library, at the highest log level, with passwords and
// keys that only this test has; its memory, its output, the log and the token's files are searched for them.
#include <gtest/gtest.h>

#include <array>
#include <bitset>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <thread>

#include "first_token.h"
#include "softtoken/key_material.h"
#include "softtoken/record_io.h"
#include "softtoken/token_folders.h"
#include "test_platform.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using softtoken::Bytes;
using softtoken::ByteView;
fs::path builtFiles;
// How often each secret is there from its beginning; 0 where only a later part of it is, or another form.
using Copies = std::map<std::string, int>;

Bytes readFile(const fs::path& name) {
  std::ifstream file(name, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + name.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const fs::path& name, const Bytes& contents) {
  std::ranges::copy(contents, std::ostreambuf_iterator<char>(std::ofstream(name, std::ios::binary).rdbuf()));
}

// Secrets go to the other process in files, masked so that the search finds no copy of its own.
Bytes masked(Bytes bytes) {
  for (CK_BYTE& byte : bytes) byte ^= 0x5A;
  return bytes;
}

// ---- The process that is searched ----

void wipe(Bytes& bytes) {
  for (volatile CK_BYTE& byte : bytes) byte = 0;
}

// A secret that was handed over, wiped by the destructor.
struct Given : Bytes {
  explicit Given(const std::string& name) : Bytes(masked(readFile(name))) {}
  ~Given() { wipe(*this); }
  Given(const Given&) = delete;
  Given& operator=(const Given&) = delete;
};

// Lets the other process search.
void pause(const char* stage) {
  writeFile(stage, {});
  while (fs::exists(stage)) std::this_thread::sleep_for(5ms);
}

class Victim {
 public:
  void useKeys() {
    const Given alwaysThere("planted");
    login(CKU_SO, "wrong password", CKR_PIN_INCORRECT);
    login(CKU_SO, "officer's password");
    expect(module()->C_Logout(session_));
    login(CKU_USER, "wrong password", CKR_PIN_INCORRECT);
    login(CKU_USER, "password");
    CK_ULONG bits = 2048;
    Bytes p256{0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    rsa_ = generate("rsa", CKM_RSA_PKCS_KEY_PAIR_GEN, CKK_RSA, {CKA_MODULUS_BITS, &bits, sizeof bits});
    ec_ = generate("ec", CKM_EC_KEY_PAIR_GEN, CKK_EC, attribute(CKA_EC_PARAMS, p256));
    importKey(CKR_FUNCTION_FAILED);
    importKey(CKR_OK);
    pause("keys made");
    sign();
    pause("signed");
    refused();
    decrypt(CKM_RSA_PKCS);
    decrypt(CKM_RSA_PKCS_OAEP);  // the last use of the session: no later call clears what is left in it
    pause("decrypted");
    for (const CK_RV expected : {CKR_OK, CKR_FUNCTION_FAILED}) {
      derive(CKD_NULL, expected);
      derive(CKD_SHA256_KDF, expected);
    }
    pause("derived");
    changePassword("wrong password", CKR_FUNCTION_FAILED);
    changePassword("password", CKR_OK);
    sign();
    pause("password changed");
    expect(module()->C_Logout(session_));
    pause("logged out");
    unload();
  }

  void logInAndOut() {
    const Given alwaysThere("planted");
    login(CKU_USER, "wrong password", CKR_PIN_INCORRECT);
    login(CKU_USER, "password");
    pause("logged in");
    changePassword("password", CKR_OK);
    pause("password changed");
    expect(module()->C_Logout(session_));
    pause("logged out");
    unload();
  }

 private:
  struct KeyPair {
    CK_OBJECT_HANDLE publicKey, privateKey;
  };

  static void expect(CK_RV result, CK_RV expected = CKR_OK, int line = __builtin_LINE()) {
    if (result != expected)
      throw std::runtime_error("the call of line " + std::to_string(line) + " gave " + std::to_string(result));
  }
  static CK_ULONG sizeOf(const Bytes& bytes) { return static_cast<CK_ULONG>(bytes.size()); }
  static CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, Bytes& value) { return {type, value.data(), sizeOf(value)}; }
  CryptokiModule& module() { return *module_; }

  void unload() {
    module_.reset();
    pause("unloaded");
  }

  void login(CK_USER_TYPE user, const char* name, CK_RV expected = CKR_OK) {
    Given pin(name);
    expect(module()->C_Login(session_, user, pin.data(), sizeOf(pin)), expected);
  }

  void changePassword(const char* from, CK_RV expected) {
    Given old(from), fresh("new password");
    expect(module()->C_SetPIN(session_, old.data(), sizeOf(old), fresh.data(), sizeOf(fresh)), expected);
  }

  KeyPair generate(std::string label, CK_MECHANISM_TYPE type, CK_KEY_TYPE keyType, CK_ATTRIBUTE publicPart) {
    CK_MECHANISM mechanism = {type, nullptr, 0};
    CK_ATTRIBUTE privatePart[] = {{CKA_KEY_TYPE, &keyType, sizeof keyType},
                                  {CKA_LABEL, label.data(), static_cast<CK_ULONG>(label.size())}};
    KeyPair made{};
    expect(module()->C_GenerateKeyPair(session_, &mechanism, &publicPart, 1, privatePart, 2, &made.publicKey,
                                       &made.privateKey));
    return made;
  }

  void importKey(CK_RV expected) {
    Given modulus("modulus"), exponent("imported exponent"), prime("imported prime 1");
    if (expected != CKR_OK) modulus.back() ^= 2;
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    char label[] = "imported";
    CK_ATTRIBUTE parts[] = {{CKA_CLASS, &objectClass, sizeof objectClass},
                            {CKA_LABEL, label, sizeof label - 1},
                            attribute(CKA_MODULUS, modulus),
                            attribute(CKA_PRIVATE_EXPONENT, exponent),
                            attribute(CKA_PRIME_1, prime)};
    expect(module()->C_CreateObject(session_, parts, 5, &imported_), expected);
  }

  void init(CK_C_SignInit call, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key) {
    CK_MECHANISM mechanism = {type, nullptr, 0};
    expect(call(session_, &mechanism, key));
  }

  // Asks for the length first, so that the module keeps the result for the second call.
  static Bytes resultOf(const std::function<CK_RV(CK_BYTE_PTR, CK_ULONG_PTR)>& call) {
    CK_ULONG length = 0;
    expect(call(nullptr, &length));
    Bytes result(length);
    expect(call(result.data(), &length));
    result.resize(length);
    return result;
  }

  Bytes compute(CK_C_SignInit initCall, CK_C_Sign call, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, Bytes& data) {
    init(initCall, type, key);
    return resultOf([&](auto to, auto length) { return call(session_, data.data(), sizeOf(data), to, length); });
  }

  void sign() {
    const std::pair<CK_OBJECT_HANDLE, CK_MECHANISM_TYPE> ways[] = {{rsa_.privateKey, CKM_SHA256_RSA_PKCS},
                                                                   {rsa_.privateKey, CKM_SHA256_RSA_PKCS_PSS},
                                                                   {imported_, CKM_SHA1_RSA_PKCS},
                                                                   {ec_.privateKey, CKM_ECDSA_SHA256}};
    Bytes data(5000, 'd');
    for (const auto& [key, mechanism] : ways) {
      compute(module()->C_SignInit, module()->C_Sign, mechanism, key, data);
      init(module()->C_SignInit, mechanism, key);
      for (int part = 0; part < 2; ++part) expect(module()->C_SignUpdate(session_, data.data(), 2500));
      resultOf([&](auto to, auto length) { return module()->C_SignFinal(session_, to, length); });
    }
  }

  void decrypt(CK_MECHANISM_TYPE type) {
    Given message("message");
    Bytes sent = compute(module()->C_EncryptInit, module()->C_Encrypt, type, rsa_.publicKey, message);
    Bytes plain = compute(module()->C_DecryptInit, module()->C_Decrypt, type, rsa_.privateKey, sent);
    if (plain != message) throw std::runtime_error("decrypted to something else");
    wipe(plain);
  }

  // What no key of the token signs or decrypts.
  void refused() {
    Bytes wrong(600, 'w'), out(1024);
    auto length = sizeOf(out);
    init(module()->C_SignInit, CKM_RSA_PKCS, rsa_.privateKey);
    expect(module()->C_Sign(session_, wrong.data(), 600, out.data(), &length), CKR_FUNCTION_FAILED);
    init(module()->C_DecryptInit, CKM_RSA_PKCS, rsa_.privateKey);
    expect(module()->C_Decrypt(session_, wrong.data(), 600, out.data(), &length), CKR_FUNCTION_FAILED);
    expect(module()->C_FindObjectsInit(session_, nullptr, 0));  // ends the decryption, as its failure does not
    expect(module()->C_FindObjectsFinal(session_));
  }

  void derive(CK_EC_KDF_TYPE kdf, CK_RV expected) {
    Given peer("peer");
    if (expected != CKR_OK) peer.back() ^= 1;  // no point of the curve
    CK_ECDH1_DERIVE_PARAMS parameters = {kdf, 0, nullptr, sizeOf(peer), peer.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    CK_OBJECT_HANDLE made = CK_INVALID_HANDLE;
    expect(module()->C_DeriveKey(session_, &mechanism, ec_.privateKey, nullptr, 0, &made), expected);
    if (expected != CKR_OK) return;
    Bytes secret(64);
    CK_ATTRIBUTE value = attribute(CKA_VALUE, secret);
    expect(module()->C_GetAttributeValue(session_, made, &value, 1));
    wipe(secret);
  }

  std::unique_ptr<CryptokiModule> module_ = std::make_unique<CryptokiModule>(std::getenv("E2E_MODULE"));
  CK_SESSION_HANDLE session_ = openSession(module());
  KeyPair rsa_{}, ec_{};
  CK_OBJECT_HANDLE imported_ = CK_INVALID_HANDLE;
};

// ---- The search ----

// Looks for pieces of 16 bytes, so that what is left of a secret after its beginning was written over counts too.
class Search {
 public:
  void add(const std::string& name, ByteView secret) {
    const Bytes plain(secret.begin(), secret.end());
    addPieces(name, plain);
    std::memcpy(beginnings_[name].data(), plain.data(), sizeof(Piece));
    addPieces(name, Bytes(plain.rbegin(), plain.rend()));  // as arithmetic keeps numbers
    Bytes hex;                                             // as the log shows bytes
    for (const CK_BYTE byte : plain)
      for (const int digit : {byte / 16, byte % 16}) hex.push_back(static_cast<CK_BYTE>("0123456789ABCDEF"[digit]));
    addPieces(name, hex);
  }

  void look(ByteView memory, Copies& found) const {
    Piece piece;
    for (; memory.size() >= piece.size(); memory = memory.subspan(1)) {
      if (!starts_[startOf(memory)]) continue;
      std::memcpy(piece.data(), memory.data(), piece.size());
      const auto known = pieces_.find(piece);
      if (known == pieces_.end()) continue;
      int& copies = found[known->second];
      if (piece == beginnings_.at(known->second)) ++copies;
    }
  }

 private:
  using Piece = std::array<std::uint8_t, 16>;

  static std::size_t startOf(ByteView bytes) {
    std::uint64_t start = 0;
    std::memcpy(&start, bytes.data(), sizeof start);
    return start % 65521;
  }

  void addPieces(const std::string& name, ByteView bytes) {
    Piece piece;
    for (; bytes.size() >= piece.size(); bytes = bytes.subspan(piece.size() / 2)) {
      std::memcpy(piece.data(), bytes.data(), piece.size());
      starts_.set(startOf(bytes));
      pieces_[piece] = name;
    }
  }

  std::map<Piece, std::string> pieces_;
  std::map<std::string, Piece> beginnings_;
  std::bitset<65521> starts_;  // a filter: for most positions it shows that no piece begins there
};

class SecretsTest : public testing::Test {
 protected:
  void SetUp() override {
    static const fs::path folder = testPlatform::freshFolder("secrets-test");
    folder_ = folder;
    fs::create_directories(folder_ / "log");
    fs::current_path(folder_);
    testPlatform::useFolder(folder_ / "log");
    testPlatform::setLogLevel(3);
    testPlatform::setEnvironment("TAVRIN_SOFT_TOKENS", (folder_ / "tokens").string().c_str());
  }

  void TearDown() override {
    if (victim_ != 0) testPlatform::killProcess(victim_);
    testPlatform::setLogLevel(std::nullopt);
    fs::current_path(folder_.parent_path());
    fs::remove_all(folder_);
  }

  // Gives the other process a secret of printable characters, or the one that is given, and looks for it from then on.
  std::string secret(const std::string& name, ByteView plain = {}) {
    std::string text(plain.begin(), plain.end());
    if (text.empty())
      for (const std::uint8_t byte : softtoken::randomBytes(40)) text += static_cast<char>('0' + byte % 64);
    writeFile(name, masked({text.begin(), text.end()}));
    search_.add(name, softtoken::viewOf(text));
    return text;
  }

  // The private keys, as the token's files have them, and what follows from them.
  void addKeys(const std::string& password) {
    softtoken::Token token(folder_ / "tokens" / "one");
    const auto state = token.state();
    const softtoken::MasterKey masterKey = token.unlockForUser(password).masterKey;
    search_.add("master key", masterKey);
    search_.add("password's key", softtoken::scrypt(softtoken::viewOf(password), state->user.salt, state->user.cost));
    ASSERT_EQ(state->keyPairs.size(), 3u);
    for (const softtoken::StoredKeyPair& pair : state->keyPairs) {
      const softtoken::KeyMaterial key{
          pair.keyType, {}, unseal(masterKey, pair.sealedPrivateKey, privateKeyContext(*state, pair)).value()};
      if (softtoken::isRsa(key.keyType)) {
        softtoken::Reader reader(key.privateKey);
        for (const char* part : {" exponent", " prime 1", " prime 2", " coefficient"})
          search_.add(std::string(pair.label) + part, reader.field(1024));
        continue;
      }
      search_.add(pair.label, key.privateKey);
      const softtoken::SecretBytes derived = softtoken::deriveWith(key, peer_.publicKey);
      search_.add("derived", derived);
      search_.add("derived, hashed", softtoken::hashOf(GCRY_MD_SHA384, derived));
    }
  }

  // Lets another process work with one of the built libraries.
  void start(const char* library, const char* work) {
    testPlatform::setEnvironment("E2E_MODULE", (builtFiles / library).string().c_str());
    victim_ = testPlatform::startSelf({work});
  }

  void await(const char* stage) {
    for (int i = 0; i < 12'000 && !fs::exists(stage); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(fs::exists(stage)) << "the other process failed: " << std::ifstream("stderr").rdbuf();
  }

  // Waits for the other process to reach the stage, searches its memory, and lets it go on.
  void compare(const char* stage, const Copies& expected) {
    ASSERT_NO_FATAL_FAILURE(await(stage));
    Copies found;
    testPlatform::forEachMemoryBlock(victim_, [&](ByteView block) { search_.look(block, found); });
    EXPECT_EQ(found, expected) << stage;
    fs::remove(stage);
  }

  Copies inFiles() {
    Copies found;
    for (const auto& entry : fs::recursive_directory_iterator(folder_))
      if (entry.is_regular_file()) search_.look(readFile(entry.path()), found);
    return found;
  }

  fs::path folder_;
  std::intptr_t victim_ = 0;
  Search search_;
  softtoken::KeyMaterial peer_ = softtoken::generateKeyMaterial(5);
};

TEST_F(SecretsTest, NoSecretOutlivesItsUse) {
  const std::string password = secret("password");
  softtoken::createToken({.name = "one", .label = "First"}, password, secret("officer's password"));
  for (const char* name : {"new password", "wrong password", "message", "planted"}) secret(name);
  const softtoken::KeyMaterial imported = softtoken::generateKeyMaterial(2);
  softtoken::Reader parts(imported.privateKey);
  secret("imported exponent", parts.field(1024));
  secret("imported prime 1", parts.field(1024));
  writeFile("modulus", masked(imported.publicKey));
  writeFile("peer", masked(peer_.publicKey));
  start(MODULE_FILE, "--use-keys");
  ASSERT_NO_FATAL_FAILURE(await("keys made"));
  ASSERT_NO_FATAL_FAILURE(addKeys(password));

  // The software token keeps the master key, the password and the last results as long as the module is initialised,
  // since the module does not report a logout to it. Derived keys are the module's objects until it is unloaded.
  Copies expected{{"planted", 1}, {"master key", 1}, {"password", 1}};
  ASSERT_NO_FATAL_FAILURE(compare("keys made", expected));
  ASSERT_NO_FATAL_FAILURE(compare("signed", expected));
  expected["message"] = 1;
  ASSERT_NO_FATAL_FAILURE(compare("decrypted", expected));
  expected.insert({{"derived", 2}, {"derived, hashed", 1}});
  ASSERT_NO_FATAL_FAILURE(compare("derived", expected));
  expected.erase("password");
  expected["new password"] = 1;
  ASSERT_NO_FATAL_FAILURE(compare("password changed", expected));
  expected.erase("new password");
  ASSERT_NO_FATAL_FAILURE(compare("logged out", expected));
  ASSERT_NO_FATAL_FAILURE(compare("unloaded", {{"planted", 1}}));
  EXPECT_FALSE(fs::is_empty(folder_ / "log"));
  EXPECT_EQ(inFiles(), Copies{});
  writeFile("control", Given("planted"));
  EXPECT_EQ(inFiles(), (Copies{{"planted", 1}}));
}

// The standard module keeps the password once more, to log in again, and only while its user is logged in.
TEST_F(SecretsTest, StandardModuleKeepsThePasswordUntilLogout) {
  softtoken::createToken({.name = "one", .label = "First"}, secret("password"), secret("officer's password"));
  for (const char* name : {"new password", "wrong password", "planted"}) secret(name);
  start(STANDARD_MODULE_FILE, "--log-in");
  ASSERT_NO_FATAL_FAILURE(compare("logged in", {{"planted", 1}, {"password", 2}}));
  ASSERT_NO_FATAL_FAILURE(compare("password changed", {{"planted", 1}, {"new password", 2}}));
  ASSERT_NO_FATAL_FAILURE(compare("logged out", {{"planted", 1}}));
  ASSERT_NO_FATAL_FAILURE(compare("unloaded", {{"planted", 1}}));
  EXPECT_EQ(inFiles(), Copies{});
}

}  // namespace

int main(int argc, char** argv) {
  const std::string work = argc == 2 ? argv[1] : "";
  if (work == "--use-keys" || work == "--log-in") {
    if (!std::freopen("stdout", "w", stdout) || !std::freopen("stderr", "w", stderr)) return 2;
    try {
      work == "--log-in" ? Victim().logInAndOut() : Victim().useKeys();
      return 0;
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 1;
    }
  }
  testing::InitGoogleTest(&argc, argv);
  builtFiles = fs::absolute(argv[0]).parent_path();
  return RUN_ALL_TESTS();
}
