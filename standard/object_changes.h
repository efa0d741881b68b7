// What calls that make, change and destroy objects share. Used under the module lock.
#pragma once

#include "standard/module_calls.h"

namespace tavrin::standard {

// The object, or CKR_OBJECT_HANDLE_INVALID.
std::shared_ptr<Object> requiredObject(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle);

// Refuses with CKR_SESSION_READ_ONLY or CKR_USER_NOT_LOGGED_IN a session that must not make or change token objects.
void requireTokenWriteAccess(const Session& session);
void requireWriteAccess(const Session& session, const Object& object);

// Gives the object the label, ID and subject of the template; what is not in it stays as it is. The subject of a key is
// kept with its handle, because the token cannot store it. In a change the token refuses an empty value; in the
// template of a new object it counts as not given.
enum class Empty { isRefused, isNotGiven };
void relabel(ModuleLock& module, Object& object, const Template& wanted, Empty empty = Empty::isRefused);

// The handles of the objects that the session may see and that match the whole template.
std::vector<CK_OBJECT_HANDLE> findObjects(ModuleLock& module, const Session& session, const Template& wanted);

// The session object with these attributes, which exists in this library alone.
std::shared_ptr<Object> addSessionObject(ModuleLock& module, const Session& session, Attributes attributes);

// The two halves of a key pair that the module has just made, with new handles. The session is the pair's owner, or 0.
struct KeyPairObjects {
  std::shared_ptr<Object> publicKey;
  std::shared_ptr<Object> privateKey;
};
KeyPairObjects addKeyPair(ModuleLock& module, Token& token, CK_OBJECT_HANDLE moduleHandle, CK_SESSION_HANDLE session,
                          bool imported);

}  // namespace tavrin::standard
