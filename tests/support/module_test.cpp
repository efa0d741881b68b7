#include "module_test.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "test_platform.h"

namespace {

namespace fs = std::filesystem;

// A temporary folder for as long as the tests run.
const fs::path& testFolder() {
  static const struct Folder {
    Folder() {
      testPlatform::useFolder(path);
      testPlatform::setEnvironment("TAVRIN_HOME", "home");
    }
    ~Folder() {
      testPlatform::setLogLevel(std::nullopt);
      fs::remove_all(path);
    }
    const fs::path path = testPlatform::freshFolder("unit");
  } folder;
  return folder.path;
}

// "- C_Login" from "15/11::23:25:31:123-> ->DEBUG ::=>C_Login", and an error's message from its line.
std::string withoutTime(const std::string& line) {
  const std::string message = line.substr(line.find(" ::=>") + 5);
  return line.find("-> ->DEBUG ::=>") == std::string::npos ? message : "- " + message;
}

bool isOfMonitor(const std::string& line) {
  for (const char* start : {"- Session monitor thread ", "- Slot event: ", "- Device disconnected, "}) {
    if (line.rfind(start, 0) == 0) return true;
  }
  return false;
}

const char* testFile() { return ::testing::UnitTest::GetInstance()->current_test_info()->file(); }

std::string joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text.append("  ").append(line).append("\n");
  return text;
}

}  // namespace

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

CK_BYTE_PTR bytes(const char* text) { return reinterpret_cast<CK_BYTE_PTR>(const_cast<char*>(text)); }

std::string number(CK_ULONG value) { return {reinterpret_cast<const char*>(&value), sizeof value}; }

std::string returned(CK_RV code) {
  std::ostringstream line;
  line << "= 0x" << std::hex << std::uppercase << code;
  return line.str();
}

std::string hexText(const std::string& bytes) { return fake::hex(bytes.data(), bytes.size()); }

CK_ATTRIBUTE_PTR Template::data() const {
  attributes_.clear();
  for (auto& [type, value] : values_) {
    const bool none = value == nothing;
    attributes_.push_back({type, none ? nullptr : value.data(), none ? 1 : static_cast<CK_ULONG>(value.size())});
  }
  return attributes_.data();
}

std::string Template::value(std::size_t index) const {
  return {static_cast<const char*>(attributes_[index].pValue), attributes_[index].ulValueLen};
}

void ModuleTest::SetUp() {
  fs::remove_all(logFolder());
  logLevel(3);
  fake::reset();
  fake::Device token = fake::device("TK1");
  token.keyPairs = {fake::keyPair(1, 2, "rsa-modulus", "RSA key"), fake::keyPair(2, 5, "ec-point", "EC key", 1)};
  token.keyPairs[0].deviceFlag = 1;
  token.certificates = {fake::certificate(1, "CN=User|CN=Root|01", "Certificate")};
  fake::edit()->devices.push_back(token);
  fake::edit()->record = [this](const std::string& line) {
    takeLog();
    lines_.push_back("> " + line);
  };
  ok(C_Initialize(nullptr));
  ok(listSlots());
}

void ModuleTest::TearDown() {
  C_Finalize(nullptr);
  fake::edit()->record = nullptr;
}

Lines ModuleTest::run(const Call& call) {
  takeLog();
  lines_.clear();
  const std::string result = returned(call.make());
  takeLog();
  lines_.push_back(result);
  return std::move(lines_);
}

void ModuleTest::expect(const Call& call, CK_RV code, Lines lines, int line) {
  for (std::string& text : lines) text = text.rfind(": ", 0) == 0 ? call.name + text : text;
  lines.insert(lines.begin(), "- " + call.name);
  lines.push_back(returned(code));
  if (const Lines did = run(call); did != lines) {
    ADD_FAILURE_AT(testFile(), line) << "expected\n" << joined(lines) << "but it did\n" << joined(did);
  }
}

void ModuleTest::ok(CK_RV code, int line) {
  if (code != CKR_OK) ADD_FAILURE_AT(testFile(), line) << "the call returned " << code;
}

CK_RV ModuleTest::listSlots() {
  CK_SLOT_ID slots[8];
  CK_ULONG count = 8;
  return C_GetSlotList(CK_TRUE, slots, &count);
}

void ModuleTest::addToken(const std::string& serialNumber) {
  fake::edit()->devices.push_back(fake::device(serialNumber));
  ok(listSlots());
}

CK_SESSION_HANDLE ModuleTest::open(CK_FLAGS flags, CK_SLOT_ID slot) {
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  ok(C_OpenSession(slot, flags, nullptr, nullptr, &session));
  return session;
}

Call ModuleTest::login(CK_SESSION_HANDLE session, CK_USER_TYPE user, const std::string& pin) {
  return {"C_Login", [=] { return C_Login(session, user, bytes(pin.c_str()), static_cast<CK_ULONG>(pin.size())); }};
}

CK_SESSION_HANDLE ModuleTest::openLoggedIn(CK_FLAGS flags) {
  const CK_SESSION_HANDLE session = open(flags);
  ok(login(session));
  return session;
}

CK_STATE ModuleTest::state(CK_SESSION_HANDLE session) {
  CK_SESSION_INFO info{};
  ok(C_GetSessionInfo(session, &info));
  return info.state;
}

void ModuleTest::endOperation(CK_SESSION_HANDLE session) {
  ok(C_FindObjectsInit(session, nullptr, 0));
  ok(C_FindObjectsFinal(session));
}

void ModuleTest::expectNoOperation(const Call& call, int line) {
  expect(call, CKR_OPERATION_NOT_INITIALIZED, {": operation not initialized, activeOperation=0"}, line);
}

CK_OBJECT_HANDLE ModuleTest::derive(CK_SESSION_HANDLE session, const std::string& peer) {
  CK_ECDH1_DERIVE_PARAMS parameters{CKD_NULL, 0, nullptr, static_cast<CK_ULONG>(peer.size()), bytes(peer.c_str())};
  CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
  CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
  ok(C_DeriveKey(session, &mechanism, ecPrivate, nullptr, 0, &secret));
  return secret;
}

std::string ModuleTest::get(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  CK_ATTRIBUTE attribute{type, nullptr, 0x5A5A};
  ok(C_GetAttributeValue(session, object, &attribute, 1));
  std::string value(attribute.ulValueLen, '\x5A');
  attribute.pValue = value.data();
  ok(C_GetAttributeValue(session, object, &attribute, 1));
  EXPECT_EQ(+attribute.ulValueLen, value.size());
  return value;
}

void ModuleTest::setFirmware(const char* version) {
  fake::edit()->devices.front().info.firmwareVersion = version;
  ok(listSlots());
}

bool ModuleTest::waitForListings(int count) {
  const auto timeout = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  const int enough = fake::backgroundListings() + count;
  while (fake::backgroundListings() < enough) {
    if (std::chrono::steady_clock::now() > timeout) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

void ModuleTest::logLevel(std::uint32_t level) { testPlatform::setLogLevel(level); }

fs::path ModuleTest::logFolder() { return testFolder() / "Quorvane Telemantix"; }

std::string ModuleTest::rawLog() {
  std::string text;
  if (!fs::exists(logFolder())) return text;
  for (const auto& entry : fs::recursive_directory_iterator(logFolder())) {
    if (!entry.is_regular_file()) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    text.append(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return text;
}

void ModuleTest::takeLog() {
  const std::string log = rawLog();
  // The monitor may be writing its line at this moment: only whole lines are taken.
  for (auto end = log.find('\n', logRead_); end != log.npos; end = log.find('\n', logRead_)) {
    const std::string message = withoutTime(log.substr(logRead_, end - logRead_));
    logRead_ = end + 1;
    if (!isOfMonitor(message)) lines_.push_back(message);
  }
}
