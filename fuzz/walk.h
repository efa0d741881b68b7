// What the random walks share: comparing with a model, and the choice of calls, whose arguments are often wrong.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fake_device_library.h"
#include "fuzz_input.h"
#include "pkcs11.h"
#include "test_platform.h"

inline constexpr CK_ATTRIBUTE_TYPE attributeTypes[] = {
    CKA_ID,    CKA_ISSUER,  CKA_MODULUS,  CKA_EC_PARAMS,  CKA_MODULUS_BITS,
    CKA_CLASS, CKA_SUBJECT, CKA_DECRYPT,  CKA_EC_POINT,   CKA_SERIAL_NUMBER,
    CKA_TOKEN, CKA_LABEL,   CKA_PRIME_1,  CKA_VALUE_LEN,  CKA_PRIVATE_EXPONENT,
    CKA_SIGN,  CKA_VALUE,   CKA_KEY_TYPE, CKA_START_DATE, 0x80000123};
// Operations of the device library. The model of logins uses the first.
inline const std::vector<std::string> deviceOperations = [] {
  std::istringstream words(
      "validatePassword signHash initHash updateHash finalHash verifySignatureHash encrypt decrypt ecdhDerive "
      "generateKeyPair importCertificate deleteKeyPair importPfx updateKeyPairDetails deleteCertificate "
      "changeUserPassword getKeyPairList getCertificateDetails generateRamdomNumber");
  return std::vector<std::string>(std::istream_iterator<std::string>(words), {});
}();
inline constexpr const char* serials[] = {"TK1", "TK2", "TK3"};
inline constexpr std::size_t mostSessions = 12;
inline unsigned long callsMade = 0;
inline CK_FUNCTION_LIST* f = nullptr;  // of the library that is walked through

// Logs to a folder of its own until the end, which reports the number of calls.
inline void startWalk() {
  static const auto folder = testPlatform::freshFolder("walk");
  testPlatform::useFolder(folder);
  testPlatform::setEnvironment("TAVRIN_HOME", "home");
  std::atexit([] {
    std::fprintf(stderr, "%lu calls, not counting those that compare sessions\n", callsMade);
    std::filesystem::remove_all(folder);
  });
}

// Connects a token with an RSA key, a P-256 key and a certificate, whose values are as long as real ones.
inline const std::string modulus(256, 'R'), point = '\x04' + std::string(64, 'P');
inline void plug(const std::string& serial) {
  fake::Device device = fake::device(serial);
  device.keyPairs = {fake::keyPair(1, 2, modulus, "RSA"), fake::keyPair(2, 5, point, "EC")};
  device.certificates = {fake::certificate(1, "CN=User|CN=Root|01", "Certificate")};
  fake::edit()->devices.push_back(device);
}

[[noreturn]] inline void stop(const char* what, CK_ULONG got, CK_ULONG expected) {
  std::fprintf(stderr, "the walk differs from the model: %s is 0x%lX, not 0x%lX\n", what,
               static_cast<unsigned long>(got), static_cast<unsigned long>(expected));
  std::abort();
}

inline void same(const char* what, CK_ULONG got, CK_ULONG expected) {
  if (got != expected) stop(what, got, expected);
}

inline CK_BYTE_PTR bytesOf(std::string& text) { return reinterpret_cast<CK_BYTE_PTR>(text.data()); }
inline CK_ULONG lengthOf(const std::string& text) { return static_cast<CK_ULONG>(text.size()); }
inline std::string number(std::size_t value) {
  const auto number = static_cast<CK_ULONG>(value);
  return {reinterpret_cast<const char*>(&number), sizeof number};
}

// Each value of a template has memory of its own, so that a sanitizer sees every access beyond it.
class RandomTemplate {
 public:
  explicit RandomTemplate(FuzzInput& input) {
    const std::size_t count = input.below(5);
    for (std::size_t i = 0; i < count; ++i) {
      const CK_ATTRIBUTE_TYPE type = attributeTypes[input.below(std::size(attributeTypes))];
      std::string value = valueFor(type, input);
      // Limited: a derived secret of gigabytes is valid but exhausts memory.
      if (type == CKA_VALUE_LEN && value.size() > 1) std::fill(value.begin() + 1, value.end(), '\0');
      const CK_ULONG length = lengthOf(value);
      if (type == CKA_LABEL) value += '\0';  // read up to its NUL by searches
      memory_.push_back(std::make_unique<char[]>(value.size()));
      std::memcpy(memory_.back().get(), value.data(), value.size());
      attributes_.push_back({type, input.chance(16) ? nullptr : memory_.back().get(), length});
    }
    empty_ = input.chance(16);
  }
  CK_ATTRIBUTE_PTR data() { return empty_ ? nullptr : attributes_.data(); }
  CK_ULONG size() const { return static_cast<CK_ULONG>(attributes_.size()); }

 private:
  static std::string valueFor(CK_ATTRIBUTE_TYPE type, FuzzInput& input) {
    if (input.chance(64)) return input.text(40);
    if (type == CKA_CLASS) return number(input.below(6));
    if (type == CKA_KEY_TYPE) return number(input.chance(128) ? CKK_RSA : CKK_EC);
    if (type == CKA_MODULUS_BITS) return number(1024 * input.below(6));
    if (type == CKA_VALUE_LEN) return number(input.below(200));
    if (type == CKA_ID) return "id-1";
    if (type == CKA_VALUE) return input.chance(128) ? "CN=Leaf|CN=Root|2" : "CN=Root|CN=Root|1";
    if (type == CKA_EC_PARAMS) return "\x06\x08\x2A\x86\x48\xCE\x3D\x03\x01\x07";
    return std::string(input.below(201), static_cast<char>(input.byte()));
  }

  std::vector<std::unique_ptr<char[]>> memory_;
  std::vector<CK_ATTRIBUTE> attributes_{};
  bool empty_ = false;
};

// Often the session that was chosen last, or another open one; at times a closed one or no session at all.
struct SessionChoice {
  CK_SESSION_HANDLE closed = 0, last = 0;

  template <class Sessions>
  CK_SESSION_HANDLE any(FuzzInput& input, const Sessions& sessions) {
    const std::size_t choice = input.byte();
    static constexpr CK_SESSION_HANDLE strangers[] = {0, 0x60000000, 0x6000000D, 0x70000001, 0xFFFFFFFF};
    if (choice >= 240 || sessions.empty()) return choice % 2 == 0 ? closed : strangers[choice % std::size(strangers)];
    if (choice >= 140 || !sessions.contains(last))
      last = std::next(sessions.begin(), static_cast<long>(choice % sessions.size()))->first;
    return last;
  }
};

inline std::string anyPin(FuzzInput& input) {
  static const std::string pins[] = {"1234", "4321", "12345", "123", std::string(63, 'x'), std::string(64, 'x')};
  const std::size_t choice = input.byte();
  return pins[choice < 200 ? choice % 3 : choice % std::size(pins)];
}
inline bool isTooShortOrLong(const std::string& pin) { return pin.size() < 4 || pin.size() > 63; }

enum Operation : unsigned { search = 1, encrypt, decrypt, digest, sign, verify = 7 };  // as the log numbers them

// A call that begins an operation, mostly with a mechanism for it.
inline std::pair<Operation, CK_RV> makeInitCall(FuzzInput& input, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
  static constexpr std::pair<Operation, CK_MECHANISM_TYPE> pairs[] = {
      {digest, CKM_SHA256},         {digest, CKM_SHA_1},
      {sign, CKM_SHA256_RSA_PKCS},  {sign, CKM_RSA_PKCS},
      {sign, CKM_RSA_PKCS_PSS},     {sign, CKM_ECDSA_SHA256},
      {verify, CKM_ECDSA},          {verify, CKM_SHA512_RSA_PKCS_PSS},
      {encrypt, CKM_RSA_PKCS_OAEP}, {encrypt, CKM_RSA_PKCS},
      {decrypt, CKM_RSA_PKCS},      {decrypt, 0x80000001}};
  auto [operation, type] = pairs[input.below(std::size(pairs))];
  if (input.chance(32)) type = pairs[input.below(std::size(pairs))].second;
  CK_RSA_PKCS_PSS_PARAMS pss{CKM_SHA512, CKG_MGF1_SHA512, 64};
  CK_RSA_PKCS_OAEP_PARAMS oaep{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
  CK_MECHANISM mechanism{type, nullptr, 0};
  if (type == CKM_SHA512_RSA_PKCS_PSS) mechanism = {type, &pss, sizeof pss};
  if (type == CKM_RSA_PKCS_OAEP) mechanism = {type, &oaep, sizeof oaep};
  if (input.chance(16)) mechanism = {type, &pss, static_cast<CK_ULONG>(input.below(sizeof pss))};
  CK_MECHANISM_PTR given = input.chance(8) ? nullptr : &mechanism;
  if (operation == digest) return {digest, f->C_DigestInit(session, given)};
  const CK_C_SignInit calls[] = {nullptr, nullptr,       f->C_EncryptInit, f->C_DecryptInit,
                                 nullptr, f->C_SignInit, nullptr,          f->C_VerifyInit};
  return {operation, calls[operation](session, given, key)};
}

enum Part { whole, update, final };

// A call that continues an operation, mostly an active one of its session. The memory of its data and of its result has
// at least the length that is passed.
struct DataCall {
  const char* name;
  Operation operation;
  Part part;
  bool lacksArgument;
  std::function<CK_RV()> make;
  CK_SESSION_HANDLE session = 0;
  CK_RV code = CKR_OK;
  bool isQuery = false;           // there was no memory for the result
  CK_ULONG room = 0, length = 0;  // of the result
};
inline constexpr std::size_t allDataCalls = 15, dataCallsOfModule = 11;

template <class Sessions>
DataCall makeDataCall(FuzzInput& input, SessionChoice& choice, const Sessions& sessions, std::size_t kinds) {
  CK_SESSION_HANDLE session = 0;
  unsigned likely = 0;
  for (int i = 0; i < 5 && likely == 0; ++i) {
    session = choice.any(input, sessions);
    const auto place = sessions.find(session);
    if (place != sessions.end() && input.chance(240)) likely = place->second.begun();
  }
  const std::string text = input.chance(32) ? "" : input.text(64);
  const auto data = std::make_unique<CK_BYTE[]>(text.size());
  std::memcpy(data.get(), text.data(), text.size());
  const CK_ULONG size = lengthOf(text);
  CK_BYTE_PTR in = input.chance(8) ? nullptr : data.get();
  // A signature or a ciphertext is mostly as long as a real one.
  CK_BYTE real[256] = {1}, buffer[2048];
  const bool isReal = input.chance(200);
  CK_BYTE_PTR sealed = isReal ? real : in;
  const CK_ULONG sealedSize = !isReal ? size : size < 16 ? 64 : 256 - size % 2;
  CK_BYTE_PTR out = input.chance(64) ? nullptr : buffer;
  const CK_ULONG room = input.chance(32) ? input.byte() : sizeof buffer;
  CK_ULONG length = room;
  CK_ULONG_PTR outSize = input.chance(8) ? nullptr : &length;
  const bool noData = !in || size == 0, notSealed = !sealed || sealedSize == 0, noSize = !outSize;
  const auto computes = [=](CK_C_Sign call) { return [=] { return call(session, in, size, out, outSize); }; };
  const auto adds = [=](CK_C_SignUpdate call) { return [=] { return call(session, in, size); }; };
  const auto ends = [=](CK_C_SignFinal call) { return [=] { return call(session, out, outSize); }; };
  const auto opens = [=] { return f->C_Decrypt(session, sealed, sealedSize, out, outSize); };
  const auto verifies = [=] { return f->C_Verify(session, in, size, sealed, sealedSize); };
  const auto endsVerifying = [=] { return f->C_VerifyFinal(session, sealed, sealedSize); };
  const DataCall calls[allDataCalls] = {
      {"C_Digest", digest, whole, noData || noSize, computes(f->C_Digest)},
      {"C_DigestUpdate", digest, update, noData, adds(f->C_DigestUpdate)},
      {"C_DigestFinal", digest, final, noSize, ends(f->C_DigestFinal)},
      {"C_Sign", sign, whole, noData || noSize, computes(f->C_Sign)},
      {"C_SignUpdate", sign, update, noData, adds(f->C_SignUpdate)},
      {"C_SignFinal", sign, final, noSize, ends(f->C_SignFinal)},
      {"C_Verify", verify, whole, noData || notSealed, verifies},
      {"C_VerifyUpdate", verify, update, noData, adds(f->C_VerifyUpdate)},
      {"C_VerifyFinal", verify, final, notSealed, endsVerifying},
      {"C_Encrypt", encrypt, whole, noData || noSize, computes(f->C_Encrypt)},
      {"C_Decrypt", decrypt, whole, notSealed || noSize, opens},
      {"C_EncryptUpdate", encrypt, update, noData || noSize, computes(f->C_EncryptUpdate)},
      {"C_EncryptFinal", encrypt, final, noSize, ends(f->C_EncryptFinal)},
      {"C_DecryptUpdate", decrypt, update, noData || noSize, computes(f->C_DecryptUpdate)},
      {"C_DecryptFinal", decrypt, final, noSize, ends(f->C_DecryptFinal)}};
  DataCall made = calls[input.below(kinds)];
  for (int i = 0; i < 12 && likely != 0 && made.operation != likely; ++i) made = calls[input.below(kinds)];
  made.session = session;
  made.code = std::exchange(made.make, nullptr)();  // its arguments are gone after this function
  made.isQuery = !out;
  made.room = out ? room : 0;
  made.length = length;
  return made;
}

// A call with an object.
struct ObjectCall {
  std::string name;
  enum Does { reads, writes, changes, needsUser } does;
  std::function<CK_RV()> make;
  CK_RV code = CKR_OK;
  CK_OBJECT_HANDLE made = 0;
};
inline constexpr std::size_t allObjectCalls = 9, objectCallsOfModule = 8;

inline ObjectCall makeObjectCall(FuzzInput& input, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                 std::size_t kinds) {
  RandomTemplate first(input), second(input);
  CK_ATTRIBUTE_PTR some = first.data(), more = second.data();
  const CK_ULONG count = first.size(), moreCount = second.size();
  CK_MECHANISM pair{input.chance(128) ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN, nullptr, 0};
  std::string peer = input.chance(200) ? point : input.text(8);
  const auto kdf = static_cast<CK_EC_KDF_TYPE>(1 + input.below(6));
  CK_ECDH1_DERIVE_PARAMS parameters{kdf, 0, nullptr, lengthOf(peer), bytesOf(peer)};
  CK_MECHANISM derivation{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
  CK_BYTE bytes[16];
  const auto few = static_cast<CK_ULONG>(input.below(sizeof bytes + 1));
  CK_OBJECT_HANDLE made = 0, madePublic = 0;
  CK_ULONG size = 0;
  using enum ObjectCall::Does;
  const ObjectCall calls[allObjectCalls] = {
      {"C_GetObjectSize", reads, [&] { return f->C_GetObjectSize(session, object, &size); }},
      {"C_GetAttributeValue", reads, [&] { return f->C_GetAttributeValue(session, object, some, count); }},
      {"C_GenerateRandom", reads, [&] { return f->C_GenerateRandom(session, bytes, few); }},
      {"C_SetAttributeValue", writes, [&] { return f->C_SetAttributeValue(session, object, some, count); }},
      {"C_DestroyObject", writes, [&] { return f->C_DestroyObject(session, object); }},
      {"C_CreateObject", changes, [&] { return f->C_CreateObject(session, some, count, &made); }},
      {"C_DeriveKey", needsUser, [&] { return f->C_DeriveKey(session, &derivation, object, some, count, &made); }},
      {"C_GenerateKeyPair", needsUser,
       [&] { return f->C_GenerateKeyPair(session, &pair, some, count, more, moreCount, &madePublic, &made); }},
      {"C_CopyObject", changes, [&] { return f->C_CopyObject(session, object, some, count, &made); }}};
  ObjectCall call = calls[input.below(kinds)];
  call.code = std::exchange(call.make, nullptr)();  // its arguments are gone after this function
  call.made = made;
  return call;
}

// Continues a search, or ends it.
inline CK_RV makeSearchCall(FuzzInput& input, CK_SESSION_HANDLE session, bool ends) {
  const auto room = static_cast<CK_ULONG>(input.below(9));
  const auto found = std::make_unique<CK_OBJECT_HANDLE[]>(room);
  CK_ULONG count = 0;
  const CK_RV code = ends ? f->C_FindObjectsFinal(session) : f->C_FindObjects(session, found.get(), room, &count);
  if (code == CKR_OK && count > room) stop("the number of objects found", count, room);
  return code;
}
