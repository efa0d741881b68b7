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

CK_ULONG sizeOf(const Bytes& bytes) { return static_cast<CK_ULONG>(bytes.size()); }

CK_BYTE* pointerTo(const Bytes& bytes) { return const_cast<CK_BYTE*>(bytes.data()); }

CK_ATTRIBUTE textAttribute(CK_ATTRIBUTE_TYPE type, const std::string& text) {
  return {type, const_cast<char*>(text.c_str()), static_cast<CK_ULONG>(text.size())};
}

template <typename Call>
void inPieces(const Bytes& data, Call call) {
  const std::size_t piece = data.size() / 3 + 1;
  for (std::size_t at = 0; at < data.size(); at += piece) {
    check(call(pointerTo(data) + at, static_cast<CK_ULONG>(std::min(piece, data.size() - at))), "an update");
  }
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
  return module->C_Login(handle, CKU_USER, reinterpret_cast<CK_BYTE*>(pin.data()), static_cast<CK_ULONG>(pin.size()));
}

CK_STATE TokenSession::state() {
  CK_SESSION_INFO info;
  check(module->C_GetSessionInfo(handle, &info), "C_GetSessionInfo");
  return info.state;
}

std::vector<CK_OBJECT_HANDLE> TokenSession::findAll(CK_OBJECT_CLASS objectClass, const std::string& label) {
  CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)}, textAttribute(CKA_LABEL, label)};
  std::vector<CK_OBJECT_HANDLE> found(64);
  CK_ULONG count = 0;
  check(module->C_FindObjectsInit(handle, wanted, label.empty() ? 1 : 2), "C_FindObjectsInit");
  check(module->C_FindObjects(handle, found.data(), 64, &count), "C_FindObjects");
  check(module->C_FindObjectsFinal(handle), "C_FindObjectsFinal");
  found.resize(count);
  return found;
}

CK_OBJECT_HANDLE TokenSession::find(CK_OBJECT_CLASS objectClass, const std::string& label) {
  const std::vector<CK_OBJECT_HANDLE> found = findAll(objectClass, label);
  return found.empty() ? CK_INVALID_HANDLE : found.front();
}

Bytes TokenSession::attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  CK_ATTRIBUTE wanted = {type, nullptr, 0};
  check(module->C_GetAttributeValue(handle, object, &wanted, 1), "C_GetAttributeValue");
  Bytes value(wanted.ulValueLen);
  wanted.pValue = value.data();
  check(module->C_GetAttributeValue(handle, object, &wanted, 1), "C_GetAttributeValue");
  return value;
}

void TokenSession::generate(const std::string& label, const Bytes& curve) {
  CK_KEY_TYPE keyType = curve.empty() ? CKK_RSA : CKK_EC;
  CK_ULONG bits = 2048;
  CK_ATTRIBUTE publicTemplate[] = {curve.empty() ? CK_ATTRIBUTE{CKA_MODULUS_BITS, &bits, sizeof(bits)}
                                                 : CK_ATTRIBUTE{CKA_EC_PARAMS, pointerTo(curve), sizeOf(curve)}};
  CK_ATTRIBUTE privateTemplate[] = {{CKA_KEY_TYPE, &keyType, sizeof(keyType)}, textAttribute(CKA_LABEL, label)};
  CK_MECHANISM mechanism = {curve.empty() ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE privateKey = CK_INVALID_HANDLE;
  check(module->C_GenerateKeyPair(handle, &mechanism, publicTemplate, 1, privateTemplate, 2, &publicKey, &privateKey),
        "C_GenerateKeyPair");
}

Bytes TokenSession::compute(CK_C_SignInit init, CK_C_Sign call, CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key,
                            const Bytes& data) {
  CK_MECHANISM argument = {mechanism, nullptr, 0};
  CK_ULONG length = 0;
  check(init(handle, &argument, key), "an Init call");
  check(call(handle, pointerTo(data), sizeOf(data), nullptr, &length), "a length query");
  Bytes result(length);
  check(call(handle, pointerTo(data), sizeOf(data), result.data(), &length), "a data call");
  result.resize(length);
  return result;
}

Bytes TokenSession::sign(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key, const Bytes& data) {
  return compute(module->C_SignInit, module->C_Sign, mechanism, key, data);
}

Bytes TokenSession::signInParts(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key, const Bytes& data) {
  CK_MECHANISM argument = {mechanism, nullptr, 0};
  CK_ULONG length = 0;
  check(module->C_SignInit(handle, &argument, key), "C_SignInit");
  inPieces(data, [&](CK_BYTE* piece, CK_ULONG size) { return module->C_SignUpdate(handle, piece, size); });
  check(module->C_SignFinal(handle, nullptr, &length), "C_SignFinal");
  Bytes signature(length);
  check(module->C_SignFinal(handle, signature.data(), &length), "C_SignFinal");
  return signature;
}

CK_RV TokenSession::verify(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key, const Bytes& data,
                           const Bytes& signature) {
  CK_MECHANISM argument = {mechanism, nullptr, 0};
  check(module->C_VerifyInit(handle, &argument, key), "C_VerifyInit");
  return module->C_Verify(handle, pointerTo(data), sizeOf(data), pointerTo(signature), sizeOf(signature));
}

CK_RV TokenSession::verifyInParts(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key, const Bytes& data,
                                  const Bytes& signature) {
  CK_MECHANISM argument = {mechanism, nullptr, 0};
  check(module->C_VerifyInit(handle, &argument, key), "C_VerifyInit");
  inPieces(data, [&](CK_BYTE* piece, CK_ULONG size) { return module->C_VerifyUpdate(handle, piece, size); });
  return module->C_VerifyFinal(handle, pointerTo(signature), sizeOf(signature));
}
