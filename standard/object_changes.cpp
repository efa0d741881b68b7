#include "standard/object_changes.h"

#include <algorithm>

namespace tavrin::standard {
namespace {

// Both are passed, as the device may clear what it is not given. It keeps no empty ones.
void relabelOnToken(ModuleLock& module, Object& object, const Attributes& wanted) {
  SecretBytes label = *wanted.find(CKA_LABEL), id = *wanted.find(CKA_ID);
  CK_ATTRIBUTE update[] = {{CKA_LABEL, label.data(), static_cast<CK_ULONG>(label.size())},
                           {CKA_ID, id.data(), static_cast<CK_ULONG>(id.size())}};
  const auto isTaken = [&](const CK_ATTRIBUTE& entry) { return readAttributes(module, object).match(entry); };
  if (std::ranges::all_of(update, isTaken)) return;
  Token& token = *object.token;
  useLogin(module, token);
  const CK_SESSION_HANDLE session = lockedSession(module, token);
  const CK_RV code = module->C_SetAttributeValue(session, object.moduleHandle, update, std::size(update));
  if (code != CKR_OK) throw moduleFailure(module, token, "C_SetAttributeValue", code);
  for (const CK_ATTRIBUTE& entry : update) {
    const CK_ATTRIBUTE_TYPE type = entry.type;
    if (!isTaken(entry)) throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token has not taken the value of type=", type);
  }
}

}  // namespace

std::shared_ptr<Object> requiredObject(ModuleLock& module, const Session& session, CK_OBJECT_HANDLE handle) {
  std::shared_ptr<Object> object = findVisible(module, session, handle);
  if (!object) throw Refusal(CKR_OBJECT_HANDLE_INVALID, "invalid hObject=", handle);
  return object;
}

void requireTokenWriteAccess(const Session& session) {
  if (!session.readWrite) throw Refusal(CKR_SESSION_READ_ONLY, "the session is read-only");
  session.requireUser();
}

void requireWriteAccess(const Session& session, const Object& object) {
  if (object.session == 0) requireTokenWriteAccess(session);
}

void relabel(ModuleLock& module, Object& object, const Template& wanted, Empty empty) {
  checkLabelAndId(wanted);
  const auto changed = std::make_shared<Attributes>(readAttributes(module, object));
  for (const CK_ATTRIBUTE_TYPE type : {CKA_LABEL, CKA_ID, CKA_SUBJECT}) {
    const auto value = wanted.bytes(type);
    if (value && (!value->empty() || empty == Empty::isRefused)) changed->set(type, *value);
  }
  if (object.moduleHandle != 0) {
    relabelOnToken(module, object, *changed);
    object.subject = *changed->find(CKA_SUBJECT);
  }
  object.attributes = changed;
}

std::shared_ptr<Object> addSessionObject(ModuleLock& module, const Session& session, Attributes attributes) {
  session.requireAlive();
  if (attributes.flag(CKA_PRIVATE)) session.requireUser();
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
