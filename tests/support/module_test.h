// The fixture of the unit tests: a running module with one token, and what each call did as a list of lines.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "fake_device_library.h"
#include "pkcs11.h"

inline constexpr CK_SLOT_ID slot1 = 0x50000001;
inline constexpr CK_FLAGS readOnly = CKF_SERIAL_SESSION;
inline constexpr CK_FLAGS readWrite = CKF_SERIAL_SESSION | CKF_RW_SESSION;
// The token's records 1 (RSA 2048, for every use), 2 (P-256, for signatures only) and 1 (a certificate).
inline constexpr CK_OBJECT_HANDLE rsaPrivate = 0x70000001;
inline constexpr CK_OBJECT_HANDLE ecPrivate = 0x70000002;
inline constexpr CK_OBJECT_HANDLE rsaPublic = 0x70001001;
inline constexpr CK_OBJECT_HANDLE ecPublic = 0x70001002;
inline constexpr CK_OBJECT_HANDLE certificate1 = 0x70002001;
inline const std::string p256("\x06\x08\x2A\x86\x48\xCE\x3D\x03\x01\x07");  // the curve, as a DER identifier
inline const std::string keysListed = "> getKeyPairList TK1 inst";
inline const std::string certificatesListed = "> getCertificateList TK1 inst";

using Lines = std::vector<std::string>;
Lines operator+(Lines left, const Lines& right);

// A call of an exported function, which is made later: CALL(C_CloseSession, session).
struct Call {
  std::string name;
  std::function<CK_RV()> make;
};
#define CALL(function, ...)                          \
  Call {                                             \
#function, [&] { return function(__VA_ARGS__); } \
  }
// A text as the bytes and the length that Cryptoki takes: CALL(C_SignUpdate, session, DATA("part")).
#define DATA(text) bytes(text), static_cast<CK_ULONG>(sizeof(text) - 1)

CK_BYTE_PTR bytes(const char* text);  // Cryptoki never writes to it
std::string number(CK_ULONG value);   // a CK_ULONG as an attribute's value
std::string returned(CK_RV code);     // a call's last line: "= 0x5"
std::string hexText(const std::string& bytes);
template <class Structure>
std::string hexOf(const Structure& structure) {
  return fake::hex(&structure, sizeof structure);
}

// The calls of the device library for a hash, and its result.
inline std::string hashBegun(int code) { return "> initHash TK1 code=" + std::to_string(code) + " inst"; }
inline std::string hashUpdated(int context, const std::string& data) {
  return "> updateHash ctx=" + std::to_string(context) + " '" + data + "' inst";
}
inline std::string hashFinished(int context, int room = 64) {
  return "> finalHash ctx=" + std::to_string(context) + " room=" + std::to_string(room) + " inst";
}
inline std::string hashOf(int code, const std::string& data) {
  return code == 0 ? data : "H" + std::to_string(code) + "(" + data + ")";
}

// A template, which owns its values. The value `nothing` is a null pointer.
class Template {
 public:
  inline static const std::string nothing = "\x01nothing";
  Template(std::initializer_list<std::pair<CK_ATTRIBUTE_TYPE, std::string>> attributes)
      : values_(attributes), attributes_(attributes.size()) {}
  CK_ATTRIBUTE_PTR data() const;  // new ones for each call: length() and value() look at the last
  CK_ULONG size() const { return static_cast<CK_ULONG>(values_.size()); }
  CK_ULONG length(std::size_t index) const { return attributes_[index].ulValueLen; }
  std::string value(std::size_t index) const;

 private:
  mutable std::vector<std::pair<CK_ATTRIBUTE_TYPE, std::string>> values_;
  mutable std::vector<CK_ATTRIBUTE> attributes_;
};

// A place for a call's output and its length. Both hold odd values, so that what a call leaves alone shows.
struct Output {
  std::array<CK_BYTE, 4096> buffer;
  CK_ULONG length = 0x5A5A;
  Output() { buffer.fill(0x5A); }
  CK_BYTE_PTR data() { return buffer.data(); }
  std::string text() const { return {buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(length)}; }
  bool isUntouched() const { return length == 0x5A5A && buffer[0] == 0x5A; }
};

class ModuleTest : public ::testing::Test {
 protected:
  // Initialises the module over one token, "TK1", lists its slot, and logs everything.
  void SetUp() override;
  void TearDown() override;

  // What the call did, in order: error lines of the log as they are, debug lines after "- ", and calls of the device
  // library after "> ". Lines of the monitor thread are left out.
  Lines run(const Call& call);
  // Expects the function's own debug line, these lines, this code, and nothing else. A line that begins with ": " has
  // the function's name before it.
  void expect(const Call& call, CK_RV code, Lines lines = {}, int line = __builtin_LINE());
  // The same for the commonest codes: CKR_OK, CKR_ARGUMENTS_BAD, CKR_FUNCTION_FAILED, CKR_OBJECT_HANDLE_INVALID.
  void does(const Call& call, const Lines& lines = {}, int line = __builtin_LINE()) {
    expect(call, CKR_OK, lines, line);
  }
  void bad(const Call& call, const std::string& reason, int line = __builtin_LINE()) {
    expect(call, CKR_ARGUMENTS_BAD, {reason}, line);
  }
  void fails(const Call& call, const Lines& lines, int line = __builtin_LINE()) {
    expect(call, CKR_FUNCTION_FAILED, lines, line);
  }
  void noObject(const Call& call, const Lines& lines, int line = __builtin_LINE()) {
    expect(call, CKR_OBJECT_HANDLE_INVALID, lines, line);
  }
  void ok(CK_RV code, int line = __builtin_LINE());
  void ok(const Call& call, int line = __builtin_LINE()) { ok(call.make(), line); }

  CK_RV listSlots();
  // Plugs another token in, without records, and lists the slots: it is in slot1 + 1.
  void addToken(const std::string& serialNumber = "TK2");
  CK_SESSION_HANDLE open(CK_FLAGS flags = readWrite, CK_SLOT_ID slot = slot1);
  Call login(CK_SESSION_HANDLE session, CK_USER_TYPE user = CKU_USER, const std::string& pin = "1234");
  CK_SESSION_HANDLE openLoggedIn(CK_FLAGS flags = readWrite);
  CK_STATE state(CK_SESSION_HANDLE session);

  Call digestInit(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type = CKM_SHA256) {
    const auto function = [](auto of, auto mechanism, auto) { return C_DigestInit(of, mechanism); };
    return init("C_DigestInit", function, session, {type, nullptr, 0}, 0);
  }
  Call signInit(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key = rsaPrivate,
                void* parameter = nullptr, CK_ULONG length = 0) {
    return init("C_SignInit", C_SignInit, session, {type, parameter, length}, key);
  }
  Call verifyInit(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key = rsaPublic,
                  void* parameter = nullptr, CK_ULONG length = 0) {
    return init("C_VerifyInit", C_VerifyInit, session, {type, parameter, length}, key);
  }
  Call encryptInit(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type = CKM_RSA_PKCS, CK_OBJECT_HANDLE key = rsaPublic,
                   void* parameter = nullptr, CK_ULONG length = 0) {
    return init("C_EncryptInit", C_EncryptInit, session, {type, parameter, length}, key);
  }
  Call decryptInit(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type = CKM_RSA_PKCS, CK_OBJECT_HANDLE key = rsaPrivate,
                   void* parameter = nullptr, CK_ULONG length = 0) {
    return init("C_DecryptInit", C_DecryptInit, session, {type, parameter, length}, key);
  }
  // Ends whatever operation the session has.
  void endOperation(CK_SESSION_HANDLE session);
  // Expects that the session has no operation that `call`, without its arguments, would proceed with.
  void expectNoOperation(const Call& call, int line = __builtin_LINE());
  // Derives a secret from record 2, without a hash: the text "Z(" peer ")".
  CK_OBJECT_HANDLE derive(CK_SESSION_HANDLE session, const std::string& peer);

  // An attribute's value, asked for as clients do: the length first.
  std::string get(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type);

  void setFirmware(const char* version);

  // Waits until the monitor has listed the devices `count` times more than when called. False after 20 seconds.
  static bool waitForListings(int count);

  static void logLevel(std::uint32_t level);
  // The folder of the log files, and their contents.
  static std::filesystem::path logFolder();
  static std::string rawLog();

 private:
  void takeLog();
  template <class Function>
  static Call init(const char* name, Function function, CK_SESSION_HANDLE session, CK_MECHANISM mechanism,
                   CK_OBJECT_HANDLE key) {
    return {name, [=] {
              CK_MECHANISM copy = mechanism;
              return function(session, &copy, key);
            }};
  }

  std::size_t logRead_ = 0;  // bytes of the log that were read
  Lines lines_;
};

// The same with a session of the logged-in user, a place for outputs, and calls that end an operation.
class SessionTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    session_ = openLoggedIn();
  }
  CK_SESSION_HANDLE session_ = 0;
  Output out_;
  const Call digest_ = CALL(C_Digest, session_, DATA("ab"), out_.data(), &out_.length);
  const Call digestFinal_ = CALL(C_DigestFinal, session_, out_.data(), &out_.length);
  const Call sign_ = CALL(C_Sign, session_, DATA("ab"), out_.data(), &out_.length);
  const Call signFinal_ = CALL(C_SignFinal, session_, out_.data(), &out_.length);
  const Call verify_ = CALL(C_Verify, session_, DATA("ab"), DATA("sig"));
  const Call verifyFinal_ = CALL(C_VerifyFinal, session_, DATA("sig"));
};
