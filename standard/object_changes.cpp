#include "standard/object_changes.h"

#include <algorithm>

namespace tavrin::standard {

std::shared_ptr<Object> requiredObject(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle) {
  std::shared_ptr<Object> object = findVisible(module, session, handle);
  if (!object) throw Refusal(CKR_OBJECT_HANDLE_INVALID, "invalid hObject=", handle);
  return object;
}

void requireTokenWriteAccess(const Session& session) {
  if (!session.readWrite) throw Refusal(CKR_SESSION_READ_ONLY, "the session is read-only");
  if (session.token.login != Login::user) throw Refusal(CKR_USER_NOT_LOGGED_IN, "the user is not logged in");
}

void requireWriteAccess(const Session& session, const Object& object) {
  if (object.session == 0) requireTokenWriteAccess(session);
}

void relabel(ModuleLock& module, Object& object, const Template& wanted) {
  checkLabelAndId(wanted);
  const Attributes& attributes = readAttributes(module, object);
  SecretBytes values[] = {*attributes.find(CKA_LABEL), *attributes.find(CKA_ID)};
  constexpr CK_ATTRIBUTE_TYPE types[] = {CKA_LABEL, CKA_ID};
  bool changes = false;
  for (std::size_t i = 0; i < std::size(types); ++i) {
    const auto value = wanted.bytes(types[i]);
    if (!value || std::ranges::equal(*value, values[i])) continue;
    values[i].assign(value->begin(), value->end());
    changes = true;
  }
  if (!changes) return;
  if (object.moduleHandle == 0) {
    auto changed = std::make_shared<Attributes>(attributes);
    for (std::size_t i = 0; i < std::size(types); ++i) changed->set(types[i], values[i]);
    object.attributes = std::move(changed);
    return;
  }

  Token& token = *object.token;
  useLogin(module, token);
  // Both are passed, as the device may clear what it is not given. It keeps no empty ones.
  CK_ATTRIBUTE update[] = {{CKA_LABEL, values[0].data(), static_cast<CK_ULONG>(values[0].size())},
                           {CKA_ID, values[1].data(), static_cast<CK_ULONG>(values[1].size())}};
  const CK_SESSION_HANDLE session = lockedSession(module, token);
  const CK_RV code = module->C_SetAttributeValue(session, object.moduleHandle, update, std::size(update));
  if (code != CKR_OK) throw moduleFailure(module, token, "C_SetAttributeValue", code);
  for (const CK_ATTRIBUTE& entry : update) {
    if (readAttributes(module, object).match(entry)) continue;
    const CK_ATTRIBUTE_TYPE type = entry.type;
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token has not taken the value of type=", type);
  }
}

std::shared_ptr<Object> addSessionObject(ModuleLock& module, const Session& session, Attributes attributes) {
  Object object;
  object.token = &session.token;
  object.objectClass = attributes.number(CKA_CLASS);
  object.session = session.handle;
  object.isPrivate = attributes.flag(CKA_PRIVATE);
  object.attributes = std::make_shared<Attributes>(std::move(attributes));
  return module.state().objects.add(std::move(object));
}

KeyPairObjects addKeyPair(ModuleLock& module, Token& token, CK_OBJECT_HANDLE moduleHandle, CK_SESSION_HANDLE session,
                          bool imported) {
  ObjectTable& objects = module.state().objects;
  const auto addHalf = [&](CK_OBJECT_CLASS objectClass) {
    Object half;
    half.token = &token;
    half.objectClass = objectClass;
    half.moduleHandle = moduleHandleOf(objectClass, moduleHandle);
    half.session = session;
    half.isPrivate = objectClass == CKO_PRIVATE_KEY;
    half.imported = imported;
    objects.forget(token, half.moduleHandle);
    return objects.add(std::move(half));
  };
  return {addHalf(CKO_PUBLIC_KEY), addHalf(CKO_PRIVATE_KEY)};
}

}  // namespace tavrin::standard
