// A client's view of the token that a script has prepared: the module loaded, one session, the calls with their usual
// arguments. Failures throw, so that a test that depends on a call stops there.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "load_module.h"
#include "public_key.h"

// The value of a variable that the script sets; throws when it is missing.
std::string setting(const char* name);

// Files of the script's working folder, which is the current one.
Bytes readFile(const std::string& name);
void writeFile(const std::string& name, const Bytes& contents);

// Attributes whose values belong to the caller.
using View = std::span<const CK_BYTE>;
using Attributes = std::vector<std::pair<CK_ATTRIBUTE_TYPE, View>>;
inline View textView(std::string_view text) { return {reinterpret_cast<const CK_BYTE*>(text.data()), text.size()}; }

class TokenSession {
 public:
  // A read-write session on the first token.
  TokenSession();

  CK_RV login();

  CK_OBJECT_HANDLE find(CK_OBJECT_CLASS objectClass, const std::string& label);  // 0: there is none
  Bytes attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type);
  void generate(const std::string& label, const Bytes& curve);  // an empty curve: RSA 2048
  CK_RV create(CK_OBJECT_CLASS objectClass, const Attributes& more, CK_OBJECT_HANDLE* made);
  CK_RV derive(CK_EC_KDF_TYPE kdf, CK_OBJECT_HANDLE key, View peer, Bytes* secret);

  // Signing, encrypting and decrypting share their calls' shapes: compute(module->C_SignInit, module->C_Sign, ...).
  Bytes compute(CK_C_SignInit init, CK_C_Sign call, CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key, View data);
  Bytes sign(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key, View data, bool inParts = false);

  CryptokiModule module;
  CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
};
