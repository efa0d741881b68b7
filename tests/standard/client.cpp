#include "client.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>

#include "load_module.h"
#include "softtoken/ec.h"
#include "softtoken/failure.h"
#include "softtoken/rsa.h"

CK_FUNCTION_LIST* f = nullptr;
const std::string p256{"\x06\x08\x2A\x86\x48\xCE\x3D\x03\x01\x07"}, p384{"\x06\x05\x2B\x81\x04\x00\x22", 7},
    p521{"\x06\x05\x2B\x81\x04\x00\x23", 7}, exponent("\1\0\1", 3);

namespace {

CK_SLOT_ID slots[3];

std::string setting(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

softtoken::ByteView view(const std::string& text) { return softtoken::viewOf(text); }

}  // namespace

bool isSoftHsm() { return !setting("STANDARD_PEER").empty(); }

Expected differs(Expected standard, CK_RV softHsm, const char* why) {
  if (isSoftHsm()) standard.codes = {softHsm};
  standard.why = why;
  return standard;
}

Expected noSuchKey() {
  return differs(CKR_KEY_HANDLE_INVALID, CKR_OBJECT_HANDLE_INVALID, "its code for objects that are no keys, too");
}

bool is(CK_RV got, const Expected& expected, const std::string& note, int line, const char* file) {
  if (std::find(expected.codes.begin(), expected.codes.end(), got) != expected.codes.end()) return true;
  ADD_FAILURE_AT(file, line) << std::hex << "got 0x" << got << ", expected 0x" << expected.codes.front() << "; " << note
                             << "; " << expected.why;
  return false;
}

CK_SLOT_ID slotOf(int token) { return slots[token]; }

std::string fileNamed(const char* name) {
  std::ifstream file(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Session::pinOf(CK_USER_TYPE user) {
  std::ifstream file(user == CKU_SO ? "so-pin" : "pin");
  std::string pin;
  std::getline(file, pin);
  return pin;
}

Session::Session(CK_FLAGS flags, int token) {
  is(f->C_OpenSession(slots[token], CKF_SERIAL_SESSION | flags, nullptr, nullptr, &handle), CKR_OK);
}

CK_STATE Session::state() const {
  CK_SESSION_INFO info{};
  is(f->C_GetSessionInfo(handle, &info), CKR_OK);
  return info.state;
}

template <class Call>
CK_RV Session::into(CK_ULONG room, Call call) {
  constexpr char untouched = '\x5A';
  std::string memory(room + 16, untouched);
  const CK_RV result = call(bytesOf(memory), &(length = room));
  EXPECT_EQ(memory.substr(room), std::string(16, untouched)) << "memory beyond the buffer was written";
  if (result == CKR_OK) out = memory.substr(0, length);
  return result;
}

Functions functionsOf(Operation operation) {
  const Functions all[] = {{nullptr, f->C_Digest, f->C_DigestUpdate, f->C_DigestFinal},
                           {f->C_SignInit, f->C_Sign, f->C_SignUpdate, f->C_SignFinal},
                           {f->C_VerifyInit, nullptr, f->C_VerifyUpdate, nullptr},
                           {f->C_EncryptInit, f->C_Encrypt, nullptr, f->C_EncryptFinal},
                           {f->C_DecryptInit, f->C_Decrypt, nullptr, f->C_DecryptFinal}};
  return all[operation];
}

CK_RV Session::init(Operation operation, Mechanism mechanism, CK_OBJECT_HANDLE key) const {
  CK_MECHANISM given = mechanism.get();
  return operation == digest ? f->C_DigestInit(handle, &given) : functionsOf(operation).init(handle, &given, key);
}

CK_RV Session::once(Operation operation, const std::string& data) {
  return into(1024, [&](auto to, auto size) {
    return functionsOf(operation).once(handle, bytesOf(data), lengthOf(data), to, size);
  });
}

CK_RV Session::update(Operation operation, const std::string& data) {
  if (operation < encrypt) return functionsOf(operation).update(handle, bytesOf(data), lengthOf(data));
  const auto call = operation == encrypt ? f->C_EncryptUpdate : f->C_DecryptUpdate;
  return into(1024, [&](auto to, auto size) { return call(handle, bytesOf(data), lengthOf(data), to, size); });
}

CK_RV Session::final(Operation operation) {
  if (operation == verify) return f->C_VerifyFinal(handle, bytesOf(out), lengthOf(out));
  return into(1024, [&](auto to, auto size) { return functionsOf(operation).final(handle, to, size); });
}

CK_RV Session::run(Operation operation, const Mechanism& mechanism, CK_OBJECT_HANDLE key, const std::string& data,
                   std::size_t piece) {
  CK_RV code = init(operation, mechanism, key);
  if (code == CKR_OK && piece == 0) return operation == verify ? check(data, out) : once(operation, data);
  for (std::size_t at = 0; code == CKR_OK && (at == 0 || at < data.size()); at += piece)
    code = update(operation, data.substr(at, piece));
  return code == CKR_OK ? final(operation) : code;
}

bool Session::isActive(Operation operation) {
  const std::string rubbish(256, '\1');
  const CK_RV code = operation == verify ? check(rubbish, rubbish) : once(operation, rubbish);
  return code != CKR_OPERATION_NOT_INITIALIZED;
}

std::vector<CK_OBJECT_HANDLE> Session::find(Template wanted) const {
  std::vector<CK_OBJECT_HANDLE> found(100);
  CK_ULONG count = 0;
  is(f->C_FindObjectsInit(handle, wanted.data(), wanted.size()), CKR_OK);
  is(f->C_FindObjects(handle, found.data(), 100, &count), CKR_OK);
  is(f->C_FindObjectsFinal(handle), CKR_OK);
  found.resize(count);
  return found;
}

CK_RV Session::get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_ULONG room) {
  return into(room, [&](CK_BYTE* to, CK_ULONG* size) {
    CK_ATTRIBUTE attribute{type, to, *size};
    const CK_RV result = f->C_GetAttributeValue(handle, object, &attribute, 1);
    *size = attribute.ulValueLen;
    return result;
  });
}

std::string hashed(CK_MECHANISM_TYPE hash, const std::string& data) {
  static const std::map<CK_MECHANISM_TYPE, int> algorithms{{CKM_SHA_1, GCRY_MD_SHA1},
                                                           {CKM_SHA256, GCRY_MD_SHA256},
                                                           {CKM_SHA384, GCRY_MD_SHA384},
                                                           {CKM_SHA512, GCRY_MD_SHA512}};
  softtoken::readyCryptoLibrary();
  const softtoken::Bytes digest = softtoken::hashOf(algorithms.at(hash), view(data));
  return {digest.begin(), digest.end()};
}

bool verifies(const std::string& key, const std::string& hash, const std::string& signature, bool pss) {
  using namespace softtoken;
  try {
    if (key.size() >= 256)
      return verifyRsa({{key.begin(), key.end()}, rsaPublicExponent()}, view(hash), view(signature), pss), true;
    const Curve& curve = key.size() == 67 ? curveP256 : key.size() == 99 ? curveP384 : curveP521;
    return verifyEcdsa(curve, view(key).last(2 * curve.length + 1), view(hash), view(signature)), true;
  } catch (const Failure&) {
    return false;
  }
}

void StandardTest::SetUp() {
  CK_C_INITIALIZE_ARGS threads{nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr};
  ASSERT_TRUE(is(f->C_Initialize(&threads), CKR_OK));
  CK_SLOT_ID found[8];
  CK_ULONG count = 8;
  ASSERT_TRUE(is(f->C_GetSlotList(CK_TRUE, found, &count), CKR_OK));
  for (CK_ULONG i = 0; i < count; ++i) {
    CK_TOKEN_INFO info;
    ASSERT_TRUE(is(f->C_GetTokenInfo(found[i], &info), CKR_OK));
    const std::string label(reinterpret_cast<const char*>(info.label), sizeof info.label);
    for (const char* name : {"first ", "second ", "third "}) {
      if (label.starts_with(name)) slots[*name == 'f' ? 0 : *name == 's' ? 1 : 2] = found[i];
    }
  }
}

void StandardTest::TearDown() { is(f->C_Finalize(nullptr), CKR_OK); }

void KeysTest::SetUp() {
  StandardTest::SetUp();
  owner_.emplace();
  ASSERT_TRUE(is(owner_->login(), CKR_OK));
  const auto ready = [&](const char* label, CK_MECHANISM_TYPE type, Template both, const Template& privatePart,
                         CK_OBJECT_HANDLE& privateKey, CK_OBJECT_HANDLE& publicKey) {
    const Template named{{CKA_TOKEN, true}, {CKA_LABEL, label}, {CKA_ID, label}};
    if (owner_->find(named).empty())
      is(owner_->generate(type, both.with(named), privatePart.with(named).with({{CKA_SENSITIVE, true}})), CKR_OK);
    const auto privates = owner_->find(named.with({{CKA_CLASS, CKO_PRIVATE_KEY}}));
    const auto publics = owner_->find(named.with({{CKA_CLASS, CKO_PUBLIC_KEY}}));
    ASSERT_TRUE(privates.size() == 1 && publics.size() == 1) << label;
    privateKey = privates[0];
    publicKey = publics[0];
  };
  const Template rsa{
      {CKA_MODULUS_BITS, 2048}, {CKA_PUBLIC_EXPONENT, exponent}, {CKA_VERIFY, true}, {CKA_ENCRYPT, true}};
  ready("rsa", CKM_RSA_PKCS_KEY_PAIR_GEN, rsa, {{CKA_SIGN, true}, {CKA_DECRYPT, true}, {CKA_DERIVE, false}}, rsa_,
        rsaPublic_);
  ready("ec", CKM_EC_KEY_PAIR_GEN, {{CKA_EC_PARAMS, p256}, {CKA_VERIFY, true}},
        {{CKA_SIGN, true}, {CKA_DERIVE, true}, {CKA_DECRYPT, false}}, ec_, ecPublic_);
}
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  void* library = openLibrary(setting("E2E_MODULE"));
  const auto list = reinterpret_cast<CK_C_GetFunctionList>(findFunction(library, "C_GetFunctionList"));
  if (!list || list(&f) != CKR_OK) return 2;
  return RUN_ALL_TESTS();
}
