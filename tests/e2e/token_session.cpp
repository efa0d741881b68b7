#include "token_session.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

std::string setting(const char* name) {
  const char* value = std::getenv(name);
  if (!value) throw std::runtime_error(std::string(name) + " is not set; run this program through its script");
  return value;
}

Bytes readFile(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + name);
  return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& name, const Bytes& contents) {
  std::ofstream file(name, std::ios::binary);
  std::copy(contents.begin(), contents.end(), std::ostreambuf_iterator<char>(file));
}

namespace {

CK_ULONG sizeOf(View bytes) { return static_cast<CK_ULONG>(bytes.size()); }
CK_BYTE* pointerTo(View bytes) { return const_cast<CK_BYTE*>(bytes.data()); }
View numberView(const CK_ULONG& number) { return {reinterpret_cast<const CK_BYTE*>(&number), sizeof number}; }

std::vector<CK_ATTRIBUTE> templateOf(const Attributes& attributes) {
  std::vector<CK_ATTRIBUTE> made;
  for (const auto& [type, value] : attributes) made.push_back({type, pointerTo(value), sizeOf(value)});
  return made;
}

Bytes fetch(const std::function<CK_RV(CK_BYTE_PTR, CK_ULONG_PTR)>& call) {
  CK_ULONG length = 0;
  check(call(nullptr, &length), "a length query");
  Bytes result(length);
  check(call(result.data(), &length), "a data call");
  result.resize(length);
  return result;
}

}  // namespace

TokenSession::TokenSession() : module(setting("E2E_MODULE")) {
  const std::vector<CK_SLOT_ID> slots = slotsWithToken(module);
  if (slots.empty()) throw std::runtime_error("no token is connected");
  check(module->C_OpenSession(slots.front(), CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &handle),
        "C_OpenSession");
}

CK_RV TokenSession::login() {
  std::ifstream file(setting("E2E_PIN_FILE"));
  std::string pin;
  std::getline(file, pin);
  return module->C_Login(handle, CKU_USER, pointerTo(textView(pin)), sizeOf(textView(pin)));
}

CK_OBJECT_HANDLE TokenSession::find(CK_OBJECT_CLASS objectClass, const std::string& label) {
  auto wanted = templateOf({{CKA_CLASS, numberView(objectClass)}, {CKA_LABEL, textView(label)}});
  CK_OBJECT_HANDLE found = CK_INVALID_HANDLE;
  CK_ULONG count = 0;
  check(module->C_FindObjectsInit(handle, wanted.data(), 2), "C_FindObjectsInit");
  check(module->C_FindObjects(handle, &found, 1, &count), "C_FindObjects");
  check(module->C_FindObjectsFinal(handle), "C_FindObjectsFinal");
  return found;
}

Bytes TokenSession::attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  return fetch([&](CK_BYTE_PTR value, CK_ULONG_PTR length) {
    CK_ATTRIBUTE wanted = {type, value, *length};
    const CK_RV result = module->C_GetAttributeValue(handle, object, &wanted, 1);
    *length = wanted.ulValueLen;
    return result;
  });
}

void TokenSession::generate(const std::string& label, const Bytes& curve) {
  const bool rsa = curve.empty();
  const CK_KEY_TYPE keyType = rsa ? CKK_RSA : CKK_EC;
  const CK_ULONG bits = 2048;
  auto publicPart =
      templateOf({rsa ? std::pair{CKA_MODULUS_BITS, numberView(bits)} : std::pair{CKA_EC_PARAMS, View(curve)}});
  auto privatePart = templateOf({{CKA_KEY_TYPE, numberView(keyType)}, {CKA_LABEL, textView(label)}});
  CK_MECHANISM mechanism = {rsa ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE made[2];
  check(module->C_GenerateKeyPair(handle, &mechanism, publicPart.data(), 1, privatePart.data(), 2, made, made + 1),
        "C_GenerateKeyPair");
}

CK_RV TokenSession::create(CK_OBJECT_CLASS objectClass, const Attributes& more, CK_OBJECT_HANDLE* made) {
  auto attributes = templateOf(more);
  attributes.push_back({CKA_CLASS, &objectClass, sizeof objectClass});
  return module->C_CreateObject(handle, attributes.data(), static_cast<CK_ULONG>(attributes.size()), made);
}

CK_RV TokenSession::derive(CK_EC_KDF_TYPE kdf, CK_OBJECT_HANDLE key, View peer, Bytes* secret) {
  CK_ECDH1_DERIVE_PARAMS parameters = {kdf, 0, nullptr, sizeOf(peer), pointerTo(peer)};
  CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
  CK_OBJECT_HANDLE made = CK_INVALID_HANDLE;
  const CK_RV result = module->C_DeriveKey(handle, &mechanism, key, nullptr, 0, &made);
  if (result == CKR_OK) *secret = attribute(made, CKA_VALUE);
  return result;
}

Bytes TokenSession::compute(CK_C_SignInit init, CK_C_Sign call, CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key,
                            View data) {
  CK_MECHANISM argument = {mechanism, nullptr, 0};
  check(init(handle, &argument, key), "an Init call");
  return fetch([&](CK_BYTE_PTR result, CK_ULONG_PTR length) {
    return call(handle, pointerTo(data), sizeOf(data), result, length);
  });
}

Bytes TokenSession::sign(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key, View data, bool inParts) {
  if (!inParts) return compute(module->C_SignInit, module->C_Sign, mechanism, key, data);
  CK_MECHANISM argument = {mechanism, nullptr, 0};
  check(module->C_SignInit(handle, &argument, key), "C_SignInit");
  const View first = data.first(data.size() / 3), rest = data.subspan(first.size());
  check(module->C_SignUpdate(handle, pointerTo(first), sizeOf(first)), "C_SignUpdate");
  check(module->C_SignUpdate(handle, pointerTo(rest), sizeOf(rest)), "C_SignUpdate");
  return fetch([&](CK_BYTE_PTR result, CK_ULONG_PTR length) { return module->C_SignFinal(handle, result, length); });
}
