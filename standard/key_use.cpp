#include "standard/key_use.h"

namespace tavrin::standard {

std::shared_ptr<Object> requiredKey(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle,
                                    const Mechanism& mechanism, CK_ATTRIBUTE_TYPE use) {
  std::shared_ptr<Object> key = findVisible(module, session, handle);
  if (!key || key->objectClass == CKO_CERTIFICATE) throw Refusal(CKR_KEY_HANDLE_INVALID, "invalid hKey=", handle);
  const Attributes& attributes = knownAttributes(module, *key);
  if (attributes.number(CKA_KEY_TYPE) != mechanism.keyType) {
    throw Refusal(CKR_KEY_TYPE_INCONSISTENT, "the key has another type, hKey=", handle);
  }
  if (!attributes.flag(use)) throw Refusal(CKR_KEY_FUNCTION_NOT_PERMITTED, "not a use of this key, hKey=", handle);
  try {
    checkIdentity(module, *key);
  } catch (const Refusal& refusal) {
    if (refusal.code() != CKR_OBJECT_HANDLE_INVALID) throw;
    throw Refusal(CKR_KEY_HANDLE_INVALID, refusal.reason());
  }
  return key;
}

// An EC signature is two numbers as long as a coordinate. An EC private key has no other trace of that than its public
// key, which is its identity.
std::size_t resultLengthOf(const Object& key) {
  if (const SecretBytes* modulus = key.attributes->find(CKA_MODULUS)) return modulus->size();
  return key.identity.size() - 1;
}

}  // namespace tavrin::standard
