// What all operations with keys share: the Init calls, the later calls, and the use of the key in the module.
#pragma once

#include "standard/output.h"

namespace tavrin::standard {

// One of the four ways to use a key.
struct KeyUse {
  std::unique_ptr<KeyOperation> Session::*operation;
  CK_FLAGS flag;                // of the mechanisms that can do it
  CK_ATTRIBUTE_TYPE attribute;  // of the keys that may do it
};

// The bytes of a PKCS #1 v1.5 block that hold no data: 0, type, at least eight of padding, 0.
constexpr std::size_t pkcs1Overhead = 11;

// The key, checked for the mechanism and the use that the attribute allows: CKR_KEY_HANDLE_INVALID,
// CKR_KEY_TYPE_INCONSISTENT or CKR_KEY_FUNCTION_NOT_PERMITTED otherwise.
std::shared_ptr<Object> requiredKey(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle,
                                    const Mechanism& mechanism, CK_ATTRIBUTE_TYPE use);

// Throws CKR_KEY_HANDLE_INVALID when the key is no longer the one that its handle first named. To be called right
// before the module uses the key: between Init and the data another process may delete it and make another one.
void checkKey(ModuleLock& module, Object& key);

// The four Init calls: checks mechanism, parameter and key, in this order, and remembers the operation.
CK_RV beginUse(const char* name, CK_SESSION_HANDLE hSession, const KeyUse& use, const CK_MECHANISM* pMechanism,
               CK_OBJECT_HANDLE hKey) noexcept;

// What the body of a later call works with.
struct UseCall {
  const Call& call;
  State& state;
  KeyOperation& operation;
  OperationEnd<KeyOperation>& end;
};

// How a later call treats its operation: data in one call exclude data in parts.
enum class Data { inOneCall, inParts };

// A call that needs the operation: runs `body(UseCall)`.
template <typename Body>
CK_RV useCall(const char* name, CK_SESSION_HANDLE hSession, const KeyUse& use, Data data, Body&& body) noexcept {
  return sessionCall(name, hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    std::unique_ptr<KeyOperation>& operation = session.*use.operation;
    OperationEnd end(operation);
    const bool excluded = operation && data == Data::inOneCall && operation->inParts;
    if (!operation || operation->isOver() || excluded) return refuseNotInitialized(call);
    return body(UseCall{call, state, *operation, end});
  });
}

// Calls the module's Init function with the operation's key, then `body(session)`, which returns the code of its call.
// Checks the key first. Throws `otherwise` for a failure of the token.
template <typename Body>
void useKey(State& state, KeyOperation& operation, CK_C_SignInit init, CK_MECHANISM_TYPE mechanism, CK_RV otherwise,
            Body&& body) {
  ModuleLock module(state);
  Object& key = *operation.key;
  Token& token = *key.token;
  if (key.isPrivate) requestLogin(module, token);
  if (operation.isOver()) throw Refusal(CKR_OPERATION_NOT_INITIALIZED, "the operation ended with the login");
  checkKey(module, key);
  CK_MECHANISM given{mechanism, nullptr, 0};
  const CK_SESSION_HANDLE session = keyUseSession(module, token);
  CK_RV code = init(session, &given, key.moduleHandle);
  if (code == CKR_OK) code = body(session);
  if (code == CKR_OK) return;
  closeKeyUseSession(module, token);
  if (key.isPrivate) useLogin(module, token);  // a lost login is the reason of the failure
  throw moduleFailure(module, token, "the operation", code, otherwise);
}

}  // namespace tavrin::standard
