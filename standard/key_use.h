// What operations with keys share: finding the key at the beginning, and the module's calls at the end.
#pragma once

#include "standard/call.h"

namespace tavrin::standard {

// The key, checked for the mechanism and the use that the attribute allows: CKR_KEY_HANDLE_INVALID,
// CKR_KEY_TYPE_INCONSISTENT or CKR_KEY_FUNCTION_NOT_PERMITTED otherwise.
std::shared_ptr<Object> requiredKey(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle,
                                    const Mechanism& mechanism, CK_ATTRIBUTE_TYPE use);

// The bytes of a signature or ciphertext that this key makes.
std::size_t resultLengthOf(const Object& key);

// Makes calls to the module with the operation's key: `body(session)` returns the code of the first call that fails.
// The key is compared with the one at Init first. Throws `otherwise` for a failure of the token.
template <typename Body>
void useKey(State& state, KeyOperation& operation, const char* function, CK_RV otherwise, Body&& body) {
  ModuleLock module(state);
  Token& token = *operation.key->token;
  if (operation.key->isPrivate) useLogin(module, token);
  if (operation.isOver()) throw Refusal(CKR_OPERATION_NOT_INITIALIZED, "the operation ended with the login");
  checkIdentity(module, *operation.key);
  const CK_RV code = body(lockedSession(module, token));
  if (code == CKR_OK) return;
  // The module may still be in the operation.
  spoilLockedSession(module, token);
  throw moduleFailure(module, token, function, code, otherwise);
}

}  // namespace tavrin::standard
