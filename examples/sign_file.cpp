// Signs a file with a key on a token, through any Cryptoki (PKCS#11) module. Begin reading with run() at the end: it
// shows all steps, and each function above it is one step with a few calls of the standard.
//
//   sign_file MODULE PIN KEY FILE OUTPUT [rsa|ec]
//
//   MODULE   the module's file
//   PIN      where the PIN is found: file:NAME (its first line) or env:NAME; never the PIN itself, since other users
//            can see command lines
//   KEY      the key's label
//   FILE     what to sign
//   OUTPUT   OUTPUT.sig receives the signature and OUTPUT.pem the public key, both as OpenSSL reads them
//   rsa|ec   generate an RSA-2048 or a P-256 key of that label first
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "load_module.h"
#include "public_key.h"

namespace {

std::string readPin(const std::string& source) {
  std::string pin;
  if (source.rfind("file:", 0) == 0) {
    std::ifstream file(source.substr(5));
    std::getline(file, pin);
  } else if (source.rfind("env:", 0) == 0) {
    const char* value = std::getenv(source.c_str() + 4);
    if (value) pin = value;
  } else {
    throw std::runtime_error("say where the PIN is found: file:NAME or env:NAME");
  }
  if (!pin.empty() && pin.back() == '\r') pin.pop_back();
  if (pin.empty()) throw std::runtime_error("no PIN in " + source);
  return pin;
}

void writeFile(const std::string& name, const void* contents, std::size_t size) {
  std::ofstream file(name, std::ios::binary);
  file.write(static_cast<const char*>(contents), static_cast<std::streamsize>(size));
  if (!file.flush()) throw std::runtime_error("cannot write " + name);
}

CK_SESSION_HANDLE openSession(const CryptokiModule& module) {
  const std::vector<CK_SLOT_ID> slots = slotsWithToken(module);
  if (slots.empty()) throw std::runtime_error("no token is connected");

  CK_TOKEN_INFO token;
  check(module->C_GetTokenInfo(slots.front(), &token), "C_GetTokenInfo");
  std::printf("Token \"%s\"\n", textOf(token.label, sizeof(token.label)).c_str());

  // Generating keys needs a read-write session. CKF_SERIAL_SESSION must always be set, for historical reasons.
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  check(module->C_OpenSession(slots.front(), CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
        "C_OpenSession");
  return session;
}

void logIn(const CryptokiModule& module, CK_SESSION_HANDLE session, const std::string& pinSource) {
  std::string pin = readPin(pinSource);
  const CK_RV result =
      module->C_Login(session, CKU_USER, reinterpret_cast<CK_BYTE*>(pin.data()), static_cast<CK_ULONG>(pin.size()));
  pin.assign(pin.size(), '\0');  // it is not needed any longer
  check(result, "C_Login");
}

template <typename Value>
CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, Value& value) {
  return {type, &value, static_cast<CK_ULONG>(sizeof(value))};
}

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, std::string& text) {
  return {type, text.data(), static_cast<CK_ULONG>(text.size())};
}

void generateKeyPair(const CryptokiModule& module, CK_SESSION_HANDLE session, std::string label, bool ec) {
  CK_BBOOL yes = CK_TRUE;
  CK_ULONG bits = 2048;
  CK_BYTE curve[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};  // P-256, as a DER identifier
  CK_KEY_TYPE keyType = ec ? CKK_EC : CKK_RSA;

  std::vector<CK_ATTRIBUTE> publicTemplate = {
      attribute(CKA_TOKEN, yes),
      attribute(CKA_VERIFY, yes),
      ec ? attribute(CKA_EC_PARAMS, curve) : attribute(CKA_MODULUS_BITS, bits),
  };
  // TavrinPKCS11 takes the key type and the label from the private key's template.
  std::vector<CK_ATTRIBUTE> privateTemplate = {
      attribute(CKA_KEY_TYPE, keyType), attribute(CKA_TOKEN, yes),   attribute(CKA_PRIVATE, yes),
      attribute(CKA_SIGN, yes),         attribute(CKA_LABEL, label),
  };
  CK_MECHANISM mechanism = {ec ? CKM_EC_KEY_PAIR_GEN : CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE privateKey = CK_INVALID_HANDLE;
  check(module->C_GenerateKeyPair(session, &mechanism, publicTemplate.data(),
                                  static_cast<CK_ULONG>(publicTemplate.size()), privateTemplate.data(),
                                  static_cast<CK_ULONG>(privateTemplate.size()), &publicKey, &privateKey),
        "C_GenerateKeyPair");
  std::printf("Generated %s key \"%s\"\n", ec ? "a P-256" : "an RSA-2048", label.c_str());
}

CK_OBJECT_HANDLE findKey(const CryptokiModule& module, CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass,
                         std::string label) {
  // Every search needs the class: without it TavrinPKCS11 returns all objects and ignores the other attributes.
  CK_ATTRIBUTE searched[] = {attribute(CKA_CLASS, objectClass), attribute(CKA_LABEL, label)};
  CK_OBJECT_HANDLE found = CK_INVALID_HANDLE;
  CK_ULONG count = 0;
  check(module->C_FindObjectsInit(session, searched, 2), "C_FindObjectsInit");
  check(module->C_FindObjects(session, &found, 1, &count), "C_FindObjects");
  check(module->C_FindObjectsFinal(session), "C_FindObjectsFinal");
  if (count == 0) throw std::runtime_error("the token holds no key labelled \"" + label + "\"");
  return found;
}

Bytes readAttribute(const CryptokiModule& module, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                    CK_ATTRIBUTE_TYPE type) {
  // The first call returns the length, the second the value.
  CK_ATTRIBUTE wanted = {type, nullptr, 0};
  check(module->C_GetAttributeValue(session, object, &wanted, 1), "C_GetAttributeValue");
  Bytes value(wanted.ulValueLen);
  wanted.pValue = value.data();
  check(module->C_GetAttributeValue(session, object, &wanted, 1), "C_GetAttributeValue");
  return value;
}

bool isEcKey(const CryptokiModule& module, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
  CK_KEY_TYPE keyType = CKK_RSA;
  CK_ATTRIBUTE wanted = attribute(CKA_KEY_TYPE, keyType);
  check(module->C_GetAttributeValue(session, key, &wanted, 1), "C_GetAttributeValue");
  return keyType == CKK_EC;
}

Bytes signFile(const CryptokiModule& module, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, bool ec,
               const std::string& fileName) {
  std::ifstream file(fileName, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + fileName);

  CK_MECHANISM mechanism = {ec ? CKM_ECDSA_SHA256 : CKM_SHA256_RSA_PKCS, nullptr, 0};
  check(module->C_SignInit(session, &mechanism, key), "C_SignInit");

  // The token hashes the file piece by piece, so its size does not matter. An empty piece is refused.
  std::vector<char> piece(65536);
  while (file.read(piece.data(), static_cast<std::streamsize>(piece.size())), file.gcount() > 0) {
    check(module->C_SignUpdate(session, reinterpret_cast<CK_BYTE*>(piece.data()), static_cast<CK_ULONG>(file.gcount())),
          "C_SignUpdate");
  }

  // Without a buffer the call returns only the length. The signature is made once and kept for the second call.
  CK_ULONG length = 0;
  check(module->C_SignFinal(session, nullptr, &length), "C_SignFinal");
  Bytes signature(length);
  check(module->C_SignFinal(session, signature.data(), &length), "C_SignFinal");
  signature.resize(length);
  return ec ? ecdsaSignatureAsDer(signature) : signature;
}

std::string publicKeyPem(const CryptokiModule& module, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, bool ec) {
  const auto read = [&](CK_ATTRIBUTE_TYPE type) { return readAttribute(module, session, key, type); };
  return ec ? ecPublicKeyPem(read(CKA_EC_PARAMS), read(CKA_EC_POINT))
            : rsaPublicKeyPem(read(CKA_MODULUS), read(CKA_PUBLIC_EXPONENT));
}

void run(const std::vector<std::string>& arguments) {
  const std::string& label = arguments[2];
  const std::string& output = arguments[4];

  const CryptokiModule module(arguments[0]);
  const CK_SESSION_HANDLE session = openSession(module);
  logIn(module, session, arguments[1]);
  if (arguments.size() == 6) generateKeyPair(module, session, label, arguments[5] == "ec");

  const CK_OBJECT_HANDLE privateKey = findKey(module, session, CKO_PRIVATE_KEY, label);
  const CK_OBJECT_HANDLE publicKey = findKey(module, session, CKO_PUBLIC_KEY, label);
  const bool ec = isEcKey(module, session, privateKey);

  const Bytes signature = signFile(module, session, privateKey, ec, arguments[3]);
  const std::string pem = publicKeyPem(module, session, publicKey, ec);
  writeFile(output + ".sig", signature.data(), signature.size());
  writeFile(output + ".pem", pem.data(), pem.size());
  std::printf(
      "Signed \"%s\" with \"%s\"; to check the signature:\n  openssl dgst -sha256 -verify %s.pem -signature %s.sig "
      "%s\n",
      arguments[3].c_str(), label.c_str(), output.c_str(), output.c_str(), arguments[3].c_str());

  check(module->C_Logout(session), "C_Logout");
  check(module->C_CloseSession(session), "C_CloseSession");
}

}  // namespace

int main(int argc, char** argv) {
  const Utf8Console console;
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool kindIsGood =
      arguments.size() == 5 || (arguments.size() == 6 && (arguments[5] == "rsa" || arguments[5] == "ec"));
  if (!kindIsGood) {
    std::fprintf(stderr, "usage: sign_file MODULE PIN KEY FILE OUTPUT [rsa|ec]\n  PIN: file:NAME or env:NAME\n");
    return 2;
  }
  try {
    run(arguments);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "sign_file: %s\n", error.what());
    return 1;
  }
}
