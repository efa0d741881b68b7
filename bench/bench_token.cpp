#include "bench/bench_token.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "devlib/device_constants.h"
#include "log/log_location.h"
#include "softtoken/token_folders.h"

namespace bench {

namespace fs = std::filesystem;

namespace {

using tavrin::KeyType;

TavrinKeyPair generate(const BenchToken& token, KeyType keyType, std::uint8_t number) {
  TavrinKeyPair pair{};
  pair.keyType = codeOf(keyType);
  pair.usage = tavrin::usageSign | tavrin::usageDecrypt;
  pair.keyId[0] = number;
  pair.keyIdLength = 1;
  require(tavrin_generateKeyPair(token.serial.c_str(), pin, &pair, token.instance) == 0, "key generation");
  return pair;
}

void changeToken(const std::function<void(softtoken::TokenState&)>& edit) {
  softtoken::Token token(softtoken::folderOfToken("bench"));
  token.change(token.unlockForUser(pin), edit);
}

// As large as a common certificate. No benchmark reads its content.
void addCertificate() {
  changeToken([](softtoken::TokenState& state) {
    TavrinCertificate certificate{};
    certificate.id = 1;
    certificate.certificateLength = 1200;
    state.certificates.push_back(certificate);
  });
}

BenchToken makeToken() {
  softtoken::NewToken description;
  description.name = "bench";
  description.label = "Benchmark";
  description.capacity = 2000;
  softtoken::createToken(description, pin, "officer's");
  BenchToken token;
  tavrin_createInstance(&token.instance);
  const auto devices = tavrin_getConnectedDeviceList(false, token.instance);
  require(devices.size() == 1, "listing the token");
  token.serial = devices.front();
  token.rsa = generate(token, KeyType::rsa2048, 1);
  token.p256 = generate(token, KeyType::ecP256, 2);
  generate(token, KeyType::ecP256, 3);
  addCertificate();
  return token;
}

}  // namespace

void require(bool succeeded, const char* what) {
  if (succeeded) return;
  std::fprintf(stderr, "benchmark: %s failed\n", what);
  std::exit(1);
}

CK_RV login(CK_C_Login cLogin, CK_SESSION_HANDLE session) {
  std::string text = pin;
  return cLogin(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(text.data()), static_cast<CK_ULONG>(text.size()));
}

fs::path levelFile(const fs::path& registry) {
  std::string key = tavrin::registryKey;
  std::ranges::replace(key, '\\', '/');
  return registry / key / tavrin::logLevelValue;
}

Surroundings::Surroundings() : folder_(fs::temp_directory_path() / "tavrin-bench-XXXXXX") {
  std::string pattern = folder_.string();
  require(mkdtemp(pattern.data()) != nullptr, "making a temporary folder");
  folder_ = pattern;
  for (const char* name : {"tokens", "temporary"}) fs::create_directory(folder_ / name);
  for (const int level : {2, 3}) {
    const fs::path file = levelFile(unusedRegistry(level));
    fs::create_directories(file.parent_path());
    std::ofstream(file) << level << '\n';
  }
  setenv("TAVRIN_SOFT_TOKENS", (folder_ / "tokens").c_str(), 1);
  setenv("TMPDIR", (folder_ / "temporary").c_str(), 1);
  setenv("TAVRIN_REGISTRY", (folder_ / "registry").c_str(), 1);
  made_ = std::chrono::steady_clock::now();
}

fs::path Surroundings::unusedRegistry(int level) const { return folder_ / ("level-" + std::to_string(level)); }

Surroundings::~Surroundings() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

LogLevel::LogLevel(const Surroundings& surroundings, int level)
    : unused_(surroundings.unusedRegistry(level)), used_(surroundings.folder() / "registry") {
  // The module keeps no level that it read from a newer file.
  std::this_thread::sleep_until(surroundings.made() + std::chrono::milliseconds(2100));
  fs::rename(unused_, used_);
}

LogLevel::~LogLevel() {
  std::error_code ignored;
  fs::rename(used_, unused_, ignored);
}

const Surroundings& surroundings() {
  static const Surroundings instance;
  return instance;
}

const BenchToken& token() {
  surroundings();
  static const BenchToken instance = makeToken();
  return instance;
}

namespace {
softtoken::TokenState& ownKeyPairs() {
  static softtoken::TokenState state = *softtoken::Token(softtoken::folderOfToken("bench")).state();
  return state;
}
}  // namespace

void setKeyPairCount(std::size_t count) {
  const softtoken::TokenState& own = ownKeyPairs();
  changeToken([&](softtoken::TokenState& state) {
    state.keyPairs.assign(count, own.keyPairs.back());
    for (std::size_t i = 0; i < count; ++i) {
      state.keyPairs[i].id = static_cast<std::uint32_t>(i + 1);
      for (std::size_t byte = 0; byte < 2; ++byte) {
        state.keyPairs[i].recordId[byte] = static_cast<std::uint8_t>(i >> (8 * byte));
      }
    }
  });
}

void restoreKeyPairs() {
  const softtoken::TokenState& own = ownKeyPairs();
  changeToken([&](softtoken::TokenState& state) { state.keyPairs = own.keyPairs; });
}

CK_SESSION_HANDLE session() {
  static CK_SESSION_HANDLE handle = [] {
    token();
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    CK_SESSION_HANDLE opened = 0;
    C_Initialize(nullptr);
    require(C_GetSlotList(CK_TRUE, &slot, &count) == CKR_OK && count == 1, "C_GetSlotList");
    require(C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &opened) == CKR_OK,
            "C_OpenSession");
    require(login(C_Login, opened) == CKR_OK, "C_Login");
    return opened;
  }();
  return handle;
}

}  // namespace bench
