// Objects: the token's key pairs and certificates as the module lists them, and session objects that exist in this
// library alone. A library handle names one object for the life of the process; before each use the object is compared
// with the one that its handle first named, because the module gives the handles of deleted objects to new ones.
//
// Everything here is used under the module lock.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "standard/attributes.h"
#include "standard/tokens.h"

namespace tavrin::standard {

struct Session;
struct State;

struct Object {
  CK_OBJECT_HANDLE handle = 0;
  Token* token = nullptr;
  CK_OBJECT_CLASS objectClass = 0;
  CK_OBJECT_HANDLE moduleHandle = 0;  // 0: exists in this library alone
  CK_SESSION_HANDLE session = 0;      // the session that the object ends with; 0 for a token object
  bool isPrivate = false;
  bool imported = false;  // a key that this process imported to the token
  bool kept = false;      // a session key that a copy has made a token object: its pair is not deleted

  SecretBytes subject;                           // CKA_SUBJECT of a key, if this process has set it
  std::vector<std::uint8_t> identity;            // public key or certificate; empty until the object is first read
  std::shared_ptr<const Attributes> attributes;  // as last read; null until then

  bool isKey() const { return objectClass != CKO_CERTIFICATE && objectClass != CKO_DATA; }
  bool isTokenKey() const { return moduleHandle != 0 && isKey(); }
};

class ObjectTable {
 public:
  // Null for a handle that names nothing.
  std::shared_ptr<Object> find(CK_OBJECT_HANDLE handle) const;

  // Gives the object a new handle.
  std::shared_ptr<Object> add(Object object);

  // The object that the module lists under this handle. It is added if it is new. Null when it is hidden.
  std::shared_ptr<Object> ofModule(Token& token, CK_OBJECT_HANDLE moduleHandle);

  // The other half of a key pair; null when it is not in the table.
  std::shared_ptr<Object> otherHalf(const Object& object) const;

  // Forgets the object. A later object with the same handle of the module is another one.
  void drop(const Object& object);

  // Hides a public key whose private key stays on the token.
  void hide(const Object& object);

  // Separates the object from its handle of the module: the next object with that handle is another one.
  void release(const Object& object);

  // Forgets the object with this handle of the module, also if it is hidden: a new object has the handle now.
  void forget(const Token& token, CK_OBJECT_HANDLE moduleHandle);

  // Forgets all objects that the predicate names.
  template <typename Predicate>
  void dropIf(Predicate predicate) {
    for (const auto& object : all())
      if (predicate(*object)) drop(*object);
  }

  std::vector<std::shared_ptr<Object>> all() const;

 private:
  using ModuleKey = std::pair<const Token*, CK_OBJECT_HANDLE>;
  std::map<CK_OBJECT_HANDLE, std::shared_ptr<Object>> objects_;
  std::map<ModuleKey, CK_OBJECT_HANDLE> byModule_;
  std::set<ModuleKey> hidden_;
};

// The module's handles: the class is the range, the number within it is the object's.
CK_OBJECT_CLASS classOfModuleHandle(CK_OBJECT_HANDLE handle);
CK_OBJECT_HANDLE moduleHandleOf(CK_OBJECT_CLASS objectClass, CK_OBJECT_HANDLE sibling);

// The object, if the session may see it: it is on the session's token, and private objects need a login.
std::shared_ptr<Object> findVisible(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle);
bool isVisible(const Object& object, const Session& session);

// The object's attributes as they are now. Throws CKR_OBJECT_HANDLE_INVALID when the object was deleted, and
// CKR_DEVICE_REMOVED when its token is.
const Attributes& readAttributes(ModuleLock& module, Object& object);

// The same as they were last read: for what never changes, which is all but label and ID.
const Attributes& knownAttributes(ModuleLock& module, Object& object);

// Throws when the object is no longer the one that its handle first named.
void checkIdentity(ModuleLock& module, Object& object);

// Whether the object has a value of this type that must not be read.
bool isSensitive(const Object& object, const Attributes& attributes, CK_ATTRIBUTE_TYPE type);

// Deletes a key pair or certificate from its token and forgets it. A public key that has been read stays, as an object
// of this library alone. Needs the user's login.
void deleteFromToken(ModuleLock& module, Object& object);

// Ends the objects of a session, or with CK_INVALID_HANDLE the private ones of all sessions of the token. Key pairs
// among them are deleted from the token.
void endSessionObjects(ModuleLock& module, Token& token, CK_SESSION_HANDLE session);

}  // namespace tavrin::standard
