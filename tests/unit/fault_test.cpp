// When anything below the module fails, a call returns the right code, nothing crashes, and the next call works. This
// is tried with every operation of the device library in every function, every allocation, every length and text.
//
// The cases are made from one table of scenes: calls that succeed, which together reach every operation.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <optional>
#include <set>

#include "module_test.h"

namespace {
// How many allocations of this thread succeed before one fails; none fails while it is negative.
thread_local long allocationsLeft = -1;
}  // namespace

void* operator new(std::size_t size) {
  if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using Kind = fake::Fault::Kind;
constexpr std::pair<Kind, int> strikes[] = {{Kind::status, 40},   {Kind::status, 48},      {Kind::status, 242},
                                            {Kind::status, 123},  {Kind::status, -7},      {Kind::outOfMemory, 0},
                                            {Kind::failure, 0},   {Kind::nothing, 0},      {Kind::length, -1},
                                            {Kind::length, 0},    {Kind::length, 1025},    {Kind::length, 4096},
                                            {Kind::length, 4097}, {Kind::length, INT_MIN}, {Kind::length, INT_MAX}};
// The tries that are left after a login with this status.
constexpr int triesLeft(int status) { return status == 242 ? 0 : status; }

struct Scene {
  Call call;
  std::vector<Call> before;
  CK_RV code = CKR_OK;
};

// An operation that a scene reaches, and which of the scene's calls of it this is.
struct Reached {
  Scene scene;
  std::string operation;
  int call;
};

class FaultTest : public SessionTest {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    fake::edit()->files = {{"middle", {'M', '|', 'R', '|', '2'}}, {"root", {'R', '|', 'R', '|', '3'}}};
    devices_ = fake::edit()->devices;
    fake::edit()->record = nullptr;
    logLevel(2);
  }

  // The token as it was, the user logged in, and the session in the state that the scene's call needs.
  void prepare(const Scene& scene) {
    C_Initialize(nullptr);
    fake::edit()->devices = devices_;
    ok(listSlots());
    for (CK_ATTRIBUTE& attribute : all_) attribute.ulValueLen = 4096;
    out_.length = 8;
    out_.buffer[0] = 0x5A;
    handles_[0] = 77;
    ok(C_CloseAllSessions(slot1));
    session_ = open();  // under the handle that it had
    if (state(session_) != CKS_RW_USER_FUNCTIONS) ok(login(session_));
    for (const Call& call : scene.before) ok(call);
  }

  std::vector<Reached> everyReached() {
    std::vector<Reached> all;
    for (const Scene& scene : scenes()) {
      std::map<std::string, int> counts;
      prepare(scene);
      fake::edit()->record = [&](const std::string& line) {
        const std::string operation = line.substr(0, line.find(' '));
        all.push_back({scene, operation, ++counts[operation]});
      };
      EXPECT_EQ(scene.call.make(), scene.code);
      fake::edit()->record = nullptr;
    }
    return all;
  }

  void worksAgain(const Scene& scene) {
    prepare(scene);
    EXPECT_EQ(scene.call.make(), scene.code);
  }

  // After a call that failed.
  void expectNothingDone(const Scene& scene) {
    const std::string& name = scene.call.name;
    EXPECT_TRUE(out_.buffer[0] == 0x5A && handles_[0] == 77) << "a result of a call that failed";
    if (scene.before.empty() || scene.before[0].name.find("Init") == name.npos || name == "C_FindObjects") return;
    const bool ends = name.rfind("C_Digest", 0) != 0 && name != "C_Decrypt";
    EXPECT_EQ(scene.call.make(), ends ? CKR_OPERATION_NOT_INITIALIZED : CKR_OK);
  }

  // After C_Finalize, even one that failed.
  void expectFreshStart() {
    EXPECT_EQ(C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    ok(C_Initialize(nullptr));
    EXPECT_EQ(C_GetSlotInfo(slot1, &slotInfo_), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(C_CloseSession(session_), CKR_SESSION_HANDLE_INVALID);
    ok(listSlots());
    EXPECT_EQ(state(open()), CKS_RW_PUBLIC_SESSION);
  }

  // The code of the call when its allocation of this number fails; nothing when it makes fewer.
  static std::optional<CK_RV> failingAllocation(long number, const std::function<CK_RV()>& call) {
    allocationsLeft = number;
    const CK_RV code = call();
    const bool failed = allocationsLeft < 0;
    allocationsLeft = -1;
    return failed ? std::optional(code) : std::nullopt;
  }

  std::vector<Scene> scenes();

  std::vector<fake::Device> devices_;
  CK_OBJECT_HANDLE handles_[8] = {};
  CK_INFO info_{};
  CK_FUNCTION_LIST_PTR functions_ = nullptr;
  CK_SLOT_INFO slotInfo_{};
  CK_TOKEN_INFO tokenInfo_{};
  CK_SESSION_INFO sessionInfo_{};
  CK_MECHANISM_INFO mechanismInfo_{};
  CK_ATTRIBUTE label_{CKA_LABEL, bytes("new"), 3};
  CK_ATTRIBUTE all_[8] = {
      {CKA_VALUE, out_.data(), 0},         {CKA_LABEL, out_.data(), 0},   {CKA_ID, out_.data(), 0},
      {CKA_EC_POINT, out_.data(), 0},      {CKA_SUBJECT, out_.data(), 0}, {CKA_ISSUER, out_.data(), 0},
      {CKA_SERIAL_NUMBER, out_.data(), 0}, {CKA_MODULUS, out_.data(), 0}};
  CK_ECDH1_DERIVE_PARAMS peer_{CKD_SHA256_KDF, 0, nullptr, 4, bytes("peer")};
  CK_MECHANISM ecdh_{CKM_ECDH1_DERIVE, &peer_, sizeof peer_};
  CK_MECHANISM rsa_{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  const Template key_{
      {CKA_CLASS, number(CKO_PRIVATE_KEY)}, {CKA_MODULUS, "n"}, {CKA_PRIVATE_EXPONENT, "d"}, {CKA_PRIME_1, "p"}};
  const Template leaf_{{CKA_VALUE, "L|M|1"}, {CKA_LABEL, "leaf"}};
  const Template byLabel_{{CKA_CLASS, number(CKO_CERTIFICATE)}, {CKA_LABEL, std::string("nobody's\0", 9)}};
};

std::vector<Scene> FaultTest::scenes() {
  const Call signPart = CALL(C_SignUpdate, session_, DATA("ab"));
  const Call verifyPart = CALL(C_VerifyUpdate, session_, DATA("ab"));
  const Call search = CALL(C_FindObjectsInit, session_, nullptr, 0);
  const Call empty{"", [] {
                     fake::edit()->devices[0].certificates.clear();
                     return CKR_OK;
                   }};
  const Call finalize = CALL(C_Finalize, nullptr);
  const Call events{"C_WaitForSlotEvent", [] {
                      CK_SLOT_ID slot = 0;
                      CK_RV code = CKR_OK;
                      while (code == CKR_OK) code = C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
                      return code;
                    }};
  const Call hashing = signInit(session_, CKM_SHA256_RSA_PKCS);
  const Call raw = signInit(session_, CKM_RSA_PKCS);
  const Call checking = verifyInit(session_, CKM_SHA256_RSA_PKCS);
  return {{CALL(C_Initialize, nullptr), {finalize}},
          {finalize, {}},
          {CALL(C_GetInfo, &info_), {}},
          {CALL(C_GetSlotList, CK_TRUE, handles_, &out_.length), {}},
          {CALL(C_GetSlotInfo, slot1, &slotInfo_), {}},
          {CALL(C_GetTokenInfo, slot1, &tokenInfo_), {}},
          {CALL(C_GetMechanismList, slot1, nullptr, &out_.length), {}},
          {CALL(C_GetMechanismInfo, slot1, CKM_RSA_PKCS, &mechanismInfo_), {}},
          {CALL(C_OpenSession, slot1, readWrite, nullptr, nullptr, handles_), {}},
          {CALL(C_CloseSession, session_), {}},
          {CALL(C_CloseAllSessions, slot1), {}},
          {CALL(C_GetSessionInfo, session_, &sessionInfo_), {}},
          {login(session_), {CALL(C_Logout, session_)}},
          {CALL(C_Logout, session_), {}},
          {CALL(C_SetPIN, session_, DATA("1234"), DATA("1234")), {}},
          {CALL(C_GenerateKeyPair, session_, &rsa_, &label_, 1, &label_, 1, handles_, handles_ + 1), {}},
          {CALL(C_SetAttributeValue, session_, rsaPrivate, &label_, 1), {}},
          {CALL(C_GetAttributeValue, session_, rsaPublic, all_, 8), {}},
          {CALL(C_GetAttributeValue, session_, certificate1, all_, 8), {}},
          {CALL(C_GetObjectSize, session_, rsaPrivate, &out_.length), {}},
          {CALL(C_GetObjectSize, session_, certificate1, &out_.length), {}},
          {CALL(C_CreateObject, session_, key_.data(), key_.size(), handles_), {}},
          {CALL(C_CreateObject, session_, leaf_.data(), leaf_.size(), handles_), {}},
          {CALL(C_DestroyObject, session_, ecPrivate), {}},
          {CALL(C_DestroyObject, session_, certificate1), {}},
          {search, {}},
          {search, {empty}},
          {CALL(C_FindObjectsInit, session_, byLabel_.data(), byLabel_.size()), {}},
          {CALL(C_FindObjects, session_, handles_, 8, &out_.length), {search}},
          {CALL(C_FindObjectsFinal, session_), {search}},
          {digestInit(session_), {}},
          {digest_, {digestInit(session_)}},
          {CALL(C_DigestUpdate, session_, DATA("ab")), {digestInit(session_)}},
          {digestFinal_, {digestInit(session_)}},
          {hashing, {}},
          {sign_, {hashing}},
          {sign_, {raw}},
          {signPart, {hashing}},
          {signPart, {raw}},
          {signFinal_, {hashing, signPart}},
          {signFinal_, {raw, signPart}},
          {checking, {}},
          {verify_, {checking}},
          {verifyPart, {checking}},
          {verifyFinal_, {checking, verifyPart}},
          {encryptInit(session_), {}},
          {CALL(C_Encrypt, session_, DATA("ab"), out_.data(), &out_.length), {encryptInit(session_)}},
          {decryptInit(session_), {}},
          {CALL(C_Decrypt, session_, DATA("ab"), out_.data(), &out_.length), {decryptInit(session_)}},
          {CALL(C_DeriveKey, session_, &ecdh_, ecPrivate, nullptr, 0, handles_), {}},
          {CALL(C_GenerateRandom, session_, out_.data(), 16), {}},
          {events, {}, CKR_NO_EVENT},
          {CALL(C_GetFunctionList, &functions_), {}},
          {CALL(C_CopyObject, session_, rsaPublic, nullptr, 0, handles_), {}, CKR_FUNCTION_NOT_SUPPORTED}};
}

// The error line of a call whose operation failed, but for the status at its end.
const std::map<std::string, std::map<std::string, std::string>> refusals = {
    {"C_SetPIN", {{"changeUserPassword", ": tavrin_changeUserPassword failed, failureCount="}}},
    {"C_FindObjectsInit", {{"initDevice", "Init device for certificates in find objects failed : "}}},
    {"C_SetAttributeValue", {{"updateKeyPairDetails", "Update key pair details failed : "}}},
    {"C_CreateObject",
     {{"importPfx", "Import private key into device failed : "}, {"importCertificate", "Leaf import failed: "}}},
    {"C_GenerateKeyPair", {{"generateKeyPair", "Generate key pair failed : "}}},
    {"C_DestroyObject",
     {{"deleteKeyPair", "Delete keypair in destroy object failed : "},
      {"deleteCertificate", "Delete certificate in destroy object failed : "}}},
    {"C_DeriveKey", {{"ecdhDerive", ": tavrin_ecdhDerive failed: "}}},
    {"C_GenerateRandom", {{"generateRamdomNumber", ": generate random number failed ret="}}},
    {"C_DigestInit", {{"initHash", "Init hash in diges init failed : "}}},
    {"C_Digest",
     {{"updateHash", "Update hash data in diget failed : "}, {"finalHash", "Final hash data in diget failed : "}}},
    {"C_DigestUpdate", {{"updateHash", "Update hash data in digest update failed : "}}},
    {"C_DigestFinal", {{"finalHash", "Final hash data in diget failed : "}}},
    {"C_Sign",
     {{"initHash", "init hash failed "},
      {"updateHash", "update hash failed "},
      {"finalHash", "final hash failed "},
      {"signHash", "Sign hash failed : "}}},
    {"C_SignUpdate", {{"initHash", ": initHash failed "}, {"updateHash", ": updateHash failed "}}},
    {"C_SignFinal", {{"finalHash", ": finalHash failed "}, {"signHash", ": signHash failed "}}},
    {"C_Verify",
     {{"initHash", ": initHash failed ret="},
      {"updateHash", ": updateHash failed ret="},
      {"finalHash", ": finalHash failed ret="},
      {"verifySignatureHash", "Verify signature failed : "}}},
    {"C_VerifyUpdate", {{"initHash", ": initHash failed "}, {"updateHash", ": updateHash failed "}}},
    {"C_VerifyFinal", {{"finalHash", ": finalHash failed "}, {"verifySignatureHash", ": verify failed "}}},
    {"C_Encrypt", {{"encrypt", "Encrypt data failed : "}}},
    {"C_Decrypt", {{"decrypt", "Dacrypt data failed : "}}}};

// The error lines and the code of a call whose operation returned this status.
Lines answerTo(const Reached& reached, int status) {
  const std::string& name = reached.scene.call.name;
  const std::string& operation = reached.operation;
  const bool stores = operation == "generateKeyPair" || operation.rfind("import", 0) == 0;
  CK_RV code = stores && (status == 40 || status == 242) ? CKR_DEVICE_MEMORY : CKR_FUNCTION_FAILED;
  if (operation == "verifySignatureHash") code = CKR_SIGNATURE_INVALID;
  if (operation == "initDevice") code = CKR_OK;  // a search continues with what was listed
  if (operation == "validatePassword") {
    const std::string error = "Token password validation failed";
    Lines lines{error + " : " + std::to_string(status)};
    if (status == 48) return lines + Lines{returned(CKR_FUNCTION_FAILED)};
    const CK_RV refusal = triesLeft(status) == 0 ? CKR_PIN_LOCKED : CKR_PIN_INCORRECT;
    return lines + Lines{error + ", retry count : " + std::to_string(triesLeft(status)), returned(refusal)};
  }
  const auto known = refusals.find(name);
  if (known != refusals.end() && known->second.contains(operation)) {
    const std::string error = known->second.at(operation) + std::to_string(status);
    return {(error[0] == ':' ? name : "") + error, returned(code)};
  }
  // Other calls succeed: operations without a status, hashes of a derived key, and CA files that cannot be parsed.
  if (operation == "getCertificateDetails" && reached.call == 1) return {returned(CKR_DATA_INVALID)};
  return {returned(CKR_OK)};
}

TEST_F(FaultTest, EveryFaultOfEveryOperation) {
  const std::map<std::string, CK_ULONG> rooms = {
      {"finalHash", 67}, {"signHash", 1024}, {"encrypt", 1024}, {"decrypt", 4096}, {"ecdhDerive", 64}};
  std::map<Kind, std::set<std::string>> struck;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const std::vector<Reached> all = everyReached();
  EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(), "");
  for (const Reached& reached : all) {
    const Scene& scene = reached.scene;
    const std::string &name = scene.call.name, &operation = reached.operation;
    for (const auto& [kind, value] : strikes) {
      SCOPED_TRACE(name + ": " + operation + " " + std::to_string(reached.call) + ", kind " +
                   std::to_string(static_cast<int>(kind)) + ", value " + std::to_string(value));
      const bool derives = operation == "ecdhDerive", lends = derives || operation == "decrypt";
      if ((kind == Kind::length && !rooms.contains(operation)) || (kind == Kind::nothing && !lends)) continue;
      prepare(scene);
      fake::fault(operation, kind, value, reached.call);
      fake::edit()->counter = name == "C_Login" ? triesLeft(value) : value;
      const Lines did = run(scene.call);
      if (name == "C_Finalize") expectFreshStart();
      if (kind == Kind::status) {
        EXPECT_EQ(did, answerTo(reached, value));
        if (did.back() == returned(CKR_OK)) continue;
        expectNothingDone(scene);
      } else if (kind == Kind::length || kind == Kind::nothing) {
        std::string error;
        if (derives && value < 1) error = ": tavrin_ecdhDerive failed: 0";
        if (lends && value > 4096)
          error = (derives ? ": shared secret" : ": plaintext") + (" too long, length=" + std::to_string(value));
        EXPECT_EQ(did, error.empty() ? Lines{returned(CKR_OK)} : (Lines{name + error, returned(CKR_FUNCTION_FAILED)}));
        EXPECT_LE(out_.length, rooms.at(operation));
        EXPECT_TRUE(value > 0 || !error.empty() || out_.length == 0 || operation == "finalHash") << out_.length;
        EXPECT_TRUE(value < 1 || !error.empty() || operation != "decrypt" ||
                    out_.length == static_cast<CK_ULONG>(value))
            << out_.length;
      } else {
        EXPECT_EQ(did.back(), returned(kind == Kind::failure ? CKR_GENERAL_ERROR : CKR_HOST_MEMORY));
      }
      struck[kind].insert(operation);
      worksAgain(scene);
    }
  }
  EXPECT_EQ(struck[Kind::status].size(), 18u) << "an operation that reports a status is reached by no scene";
  EXPECT_EQ(struck[Kind::failure].size(), 29u) << "an operation is reached by no scene";
  EXPECT_EQ(struck[Kind::length].size(), rooms.size());
}

TEST_F(FaultTest, EveryAllocation) {
  long allocations = 0;
  std::string wrong;
  for (const std::uint32_t level : {0u, 3u}) {
    logLevel(level);
    testing::internal::CaptureStdout();
    for (const Scene& scene : scenes()) {
      for (long number = 0;; ++number) {
        prepare(scene);
        const auto code = failingAllocation(number, scene.call.make);
        if (!code) break;
        // A line that is lost costs the call nothing.
        if (code != CKR_HOST_MEMORY && (level == 0 || code != scene.code))
          wrong += scene.call.name + ": " + std::to_string(*code) + ", allocation " + std::to_string(number) + "\n";
        ++allocations;
      }
      worksAgain(scene);
    }
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(output.find("Exception in write log : ") != std::string::npos, level == 3) << output;
  }
  EXPECT_EQ(wrong, "");
  EXPECT_GT(allocations, 200);
}

TEST_F(FaultTest, RecordsThatLie) {
  const auto fill = [](auto&... fields) { (std::memset(fields, 'x', sizeof fields), ...); };
  for (const std::uint32_t lie : {0x7FFFFFFFu, 0xFFFFFFFFu, 3073u}) {
    for (fake::Device& device : devices_) {
      for (TavrinKeyPair& key : device.keyPairs) {
        fill(key.publicKey, key.keyId, key.label);
        key.publicKeyLength = key.keyIdLength = lie;
      }
      for (TavrinCertificate& certificate : device.certificates) {
        fill(certificate.certificate, certificate.certId, certificate.label);
        certificate.certificateLength = certificate.certIdLength = lie;
      }
    }
    for (const Scene& scene : scenes()) {
      SCOPED_TRACE(scene.call.name);
      worksAgain(scene);
    }
    for (const auto& [object, type, length] : {std::tuple{rsaPublic, CKA_VALUE, 1024u},
                                               {rsaPublic, CKA_ID, 128u},
                                               {rsaPublic, CKA_LABEL, 132u},
                                               {certificate1, CKA_VALUE, 3072u},
                                               {certificate1, CKA_ID, 128u},
                                               {certificate1, CKA_LABEL, 152u}})
      EXPECT_EQ(get(session_, object, type).size(), length) << object << ' ' << type;
  }
}

}  // namespace
