#include "standard/objects.h"

#include <algorithm>
#include <atomic>

#include "objects/handle_ranges.h"
#include "standard/module_calls.h"

namespace tavrin::standard {
namespace {

std::atomic<CK_OBJECT_HANDLE> lastObjectHandle = 0;

}  // namespace

CK_OBJECT_CLASS classOfModuleHandle(CK_OBJECT_HANDLE handle) {
  if (isPrivateKey(handle)) return CKO_PRIVATE_KEY;
  return isPublicKey(handle) ? CKO_PUBLIC_KEY : CKO_CERTIFICATE;
}

CK_OBJECT_HANDLE moduleHandleOf(CK_OBJECT_CLASS objectClass, CK_OBJECT_HANDLE sibling) {
  const CK_OBJECT_HANDLE record = sibling & maximumRecordNumber;
  if (objectClass == CKO_PRIVATE_KEY) return privateKeyBase + record;
  return (objectClass == CKO_PUBLIC_KEY ? publicKeyBase : certificateBase) + record;
}

std::shared_ptr<Object> ObjectTable::find(CK_OBJECT_HANDLE handle) const {
  const auto place = objects_.find(handle);
  return place == objects_.end() ? nullptr : place->second;
}

std::shared_ptr<Object> ObjectTable::add(Object object) {
  object.handle = ++lastObjectHandle;
  if (object.moduleHandle != 0) byModule_[{object.token, object.moduleHandle}] = object.handle;
  const CK_OBJECT_HANDLE handle = object.handle;
  return objects_.emplace(handle, std::make_shared<Object>(std::move(object))).first->second;
}

std::shared_ptr<Object> ObjectTable::ofModule(Token& token, CK_OBJECT_HANDLE moduleHandle) {
  const ModuleKey key{&token, moduleHandle};
  if (hidden_.contains(key)) return nullptr;
  if (const auto place = byModule_.find(key); place != byModule_.end()) return find(place->second);
  Object object;
  object.token = &token;
  object.objectClass = classOfModuleHandle(moduleHandle);
  object.moduleHandle = moduleHandle;
  object.isPrivate = object.objectClass == CKO_PRIVATE_KEY;
  return add(std::move(object));
}

std::shared_ptr<Object> ObjectTable::otherHalf(const Object& object) const {
  const CK_OBJECT_CLASS other = object.objectClass == CKO_PUBLIC_KEY ? CKO_PRIVATE_KEY : CKO_PUBLIC_KEY;
  const auto place = byModule_.find({object.token, moduleHandleOf(other, object.moduleHandle)});
  return place == byModule_.end() ? nullptr : find(place->second);
}

void ObjectTable::release(const Object& object) {
  const auto place = byModule_.find({object.token, object.moduleHandle});
  if (place != byModule_.end() && place->second == object.handle) byModule_.erase(place);
}

void ObjectTable::drop(const Object& object) {
  release(object);
  objects_.erase(object.handle);
}

void ObjectTable::hide(const Object& object) {
  hidden_.emplace(object.token, object.moduleHandle);
  drop(object);
}

void ObjectTable::forget(const Token& token, CK_OBJECT_HANDLE moduleHandle) {
  const ModuleKey key{&token, moduleHandle};
  hidden_.erase(key);
  const auto place = byModule_.find(key);
  if (place == byModule_.end()) return;
  objects_.erase(place->second);
  byModule_.erase(place);
}

std::vector<std::shared_ptr<Object>> ObjectTable::all() const {
  std::vector<std::shared_ptr<Object>> result;
  for (const auto& [handle, object] : objects_) result.push_back(object);
  return result;
}

bool isVisible(const Object& object, const Session& session) {
  return object.token == &session.token && (!object.isPrivate || session.token.login == Login::user);
}

std::shared_ptr<Object> findVisible(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle) {
  const std::shared_ptr<Object> object = module.state().objects.find(handle);
  return object && isVisible(*object, session) ? object : nullptr;
}

void deleteFromToken(ModuleLock& module, Object& object) {
  Token& token = *object.token;
  readAttributes(module, object);  // throws unless the handle still names this object
  useLogin(module, token);
  // The module deletes key pairs by their private half.
  const auto other = object.isTokenKey() ? module.state().objects.otherHalf(object) : nullptr;
  const CK_OBJECT_HANDLE handle =
      object.isTokenKey() ? moduleHandleOf(CKO_PRIVATE_KEY, object.moduleHandle) : object.moduleHandle;
  const CK_RV code = module->C_DestroyObject(lockedSession(module, token), handle);
  if (code != CKR_OK) throw moduleFailure(module, token, "C_DestroyObject", code);
  ObjectTable& objects = module.state().objects;
  // The session objects from which C_CopyObject made the pair.
  objects.dropIf([&](const Object& old) {
    return old.kept && old.token == &token &&
           moduleHandleOf(object.objectClass, old.moduleHandle) == object.moduleHandle;
  });
  for (Object* gone : {&object, other.get()}) {
    if (!gone) continue;
    if (gone->objectClass == CKO_PUBLIC_KEY && gone->attributes) {
      objects.release(*gone);
      gone->moduleHandle = 0;
      const auto left = std::make_shared<Attributes>(*gone->attributes);
      for (const CK_ATTRIBUTE_TYPE use : {CKA_ENCRYPT, CKA_VERIFY}) left->setFlag(use, false);
      gone->attributes = left;
    } else {
      objects.drop(*gone);
    }
  }
}

// What cannot be deleted stays on the token: the session is closed in any case.
void endSessionObjects(ModuleLock& module, Token& token, CK_SESSION_HANDLE session) {
  for (const auto& object : module.state().objects.all()) {
    const bool ends = object->token == &token && object->session != 0 &&
                      (session == CK_INVALID_HANDLE ? object->isPrivate : object->session == session);
    if (!ends) continue;
    try {
      if (object->moduleHandle != 0 && !object->kept && module.state().objects.find(object->handle)) {
        deleteFromToken(module, *object);
      }
    } catch (const Refusal& refusal) {
      logError("A session key pair stays on the token: ", refusal.reason());
    }
    module.state().objects.drop(*object);
  }
}

}  // namespace tavrin::standard
