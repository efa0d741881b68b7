// C_CreateObject and C_CopyObject.
#include <algorithm>
#include <iterator>

#include "devlib/device_constants.h"
#include "standard/call_frames.h"
#include "standard/object_changes.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

// Some attributes of the template; empty where it has none.
Attributes pick(const Template& given, std::initializer_list<CK_ATTRIBUTE_TYPE> types) {
  Attributes picked;
  for (const CK_ATTRIBUTE_TYPE type : types) picked.set(type, given.bytes(type).value_or(ByteView{}));
  return picked;
}

// Calls C_CreateObject of the module. A new object whose handle the module cannot report is a failure.
CK_OBJECT_HANDLE createInModule(ModuleLock& module, Token& token, Attributes wanted) {
  useLogin(module, token);
  CK_OBJECT_HANDLE handle = 0;
  std::vector<CK_ATTRIBUTE> entries = wanted.asTemplate();
  const CK_RV code = module->C_CreateObject(lockedSession(module, token), entries.data(),
                                            static_cast<CK_ULONG>(entries.size()), &handle);
  if (code == CKR_DATA_INVALID) throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "CKA_VALUE is no certificate");
  if (code != CKR_OK) throw moduleFailure(module, token, "C_CreateObject", code, CKR_ATTRIBUTE_VALUE_INVALID);
  if (handle == 0) throw Refusal(CKR_DEVICE_ERROR, "the token does not show the new object");
  return handle;
}

std::shared_ptr<Object> createCertificate(ModuleLock& module, const Session& session, const Template& given) {
  given.mustBeOf(certificate);
  given.requiredNumber(CKA_CERTIFICATE_TYPE);
  given.mustNotContradict(CKA_CERTIFICATE_TYPE, CK_ULONG{CKC_X_509});
  given.mustNotContradict(CKA_TRUSTED, false);
  const ByteView value = given.required(CKA_VALUE);
  given.required(CKA_SUBJECT);
  if (!given.flag(CKA_TOKEN).value_or(false)) {
    return addSessionObject(module, session, withDefaults(given, certificate));
  }
  requireTokenWriteAccess(session);
  given.mustNotContradict(CKA_PRIVATE, false);
  if (value.size() > maximumCertificateLength) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the certificate is too long, ulValueLen=", value.size());
  }
  const CK_OBJECT_HANDLE handle =
      createInModule(module, session.token, pick(given, {CKA_CLASS, CKA_VALUE, CKA_LABEL, CKA_ID}));
  ObjectTable& objects = module.state().objects;
  // A certificate that is written again stays the same object.
  std::shared_ptr<Object> known = objects.ofModule(session.token, handle);
  if (known && std::ranges::equal(known->identity, value)) return known;
  objects.forget(session.token, handle);
  return objects.ofModule(session.token, handle);
}

std::shared_ptr<Object> createPrivateKey(ModuleLock& module, const Session& session, const Template& given) {
  if (given.number(CKA_KEY_TYPE).value_or(CKK_RSA) != CKK_RSA) {
    throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the token imports RSA keys only");
  }
  given.mustBeOf(privateKey);
  for (const auto type : {CKA_KEY_TYPE, CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}) given.required(type);
  checkRsaKey(given, bitsOf(given.required(CKA_MODULUS)));
  given.mustNotContradict(CKA_PRIVATE, true);
  given.mustNotContradict(CKA_ALWAYS_AUTHENTICATE, false);
  const bool onToken = given.flag(CKA_TOKEN).value_or(false);
  if (onToken) requireTokenWriteAccess(session);
  const CK_OBJECT_HANDLE handle =
      createInModule(module, session.token,
                     pick(given, {CKA_CLASS, CKA_KEY_TYPE, CKA_LABEL, CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}));
  const KeyPairObjects pair = addKeyPair(module, session.token, handle, onToken ? 0 : session.handle, true);
  // The module imports a key without its ID.
  relabel(module, *pair.privateKey, given, Empty::isNotGiven);
  return pair.privateKey;
}

// Many clients write a public key after its private key: it is there then, and gets the label and ID of the template.
std::shared_ptr<Object> publicKeyOnToken(ModuleLock& module, const Session& session, const Template& given) {
  requireTokenWriteAccess(session);
  given.mustNotContradict(CKA_PRIVATE, false);
  CK_OBJECT_CLASS objectClass = CKO_PUBLIC_KEY;
  const CK_ATTRIBUTE* value = given.find(given.find(CKA_MODULUS) ? CKA_MODULUS : CKA_EC_POINT);
  const CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &objectClass, sizeof objectClass}, *value};
  for (const CK_OBJECT_HANDLE handle : findObjects(module, session, Template(wanted, std::size(wanted)))) {
    std::shared_ptr<Object> object = module.state().objects.find(handle);
    if (!object || object->moduleHandle == 0 || object->session != 0) continue;
    relabel(module, *object, given, Empty::isNotGiven);
    return object;
  }
  throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the token keeps a public key with its private key only");
}

// A public key outside the token is data to read: the token verifies and encrypts with its own keys only.
std::shared_ptr<Object> createPublicKey(ModuleLock& module, const Session& session, const Template& given) {
  given.mustBeOf(publicKey);
  given.mustNotContradict(CKA_TRUSTED, false);
  const CK_ULONG keyType = given.requiredNumber(CKA_KEY_TYPE);
  if (keyType != CKK_RSA && keyType != CKK_EC) {
    throw Refusal(CKR_TEMPLATE_INCONSISTENT, "unsupported CKA_KEY_TYPE=", keyType);
  }
  const bool isRsa = keyType == CKK_RSA;
  given.required(isRsa ? CKA_MODULUS : CKA_EC_PARAMS);
  given.required(isRsa ? CKA_PUBLIC_EXPONENT : CKA_EC_POINT);
  for (const CK_ATTRIBUTE_TYPE foreign :
       {isRsa ? CKA_EC_PARAMS : CKA_MODULUS, isRsa ? CKA_EC_POINT : CKA_PUBLIC_EXPONENT}) {
    if (given.bytes(foreign)) throw Refusal(CKR_TEMPLATE_INCONSISTENT, "not of this key type: type=", foreign);
  }
  if (given.flag(CKA_TOKEN).value_or(false)) return publicKeyOnToken(module, session, given);
  Attributes made = withDefaults(given, publicKey);
  if (isRsa) made.setNumber(CKA_MODULUS_BITS, bitsOf(given.required(CKA_MODULUS)));
  return addSessionObject(module, session, std::move(made));
}

// The token keeps no data objects, so they are made in this library alone.
std::shared_ptr<Object> createData(ModuleLock& module, const Session& session, const Template& given) {
  given.mustBeOf(dataObject);
  given.mustNotContradict(CKA_TOKEN, false);
  return addSessionObject(module, session, withDefaults(given, dataObject));
}

std::shared_ptr<Object> createObject(ModuleLock& module, const Session& session, const Template& given) {
  const CK_ULONG objectClass = given.requiredNumber(CKA_CLASS);
  if (objectClass == CKO_DATA) return createData(module, session, given);
  if (objectClass == CKO_CERTIFICATE) return createCertificate(module, session, given);
  if (objectClass == CKO_PUBLIC_KEY) return createPublicKey(module, session, given);
  if (objectClass == CKO_PRIVATE_KEY) return createPrivateKey(module, session, given);
  throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token keeps no objects of CKA_CLASS=", objectClass);
}

// The template of a copy may give another label and ID, CKA_TOKEN, a stricter CKA_SENSITIVE or CKA_EXTRACTABLE, and
// values that the original has. A copy in this library alone may also become private or fixed.
void checkCopyTemplate(const Attributes& original, const Template& changes, bool onToken) {
  for (const CK_ATTRIBUTE& entry : changes.entries()) {
    const CK_ATTRIBUTE_TYPE type = entry.type;
    if (!original.find(type)) throw Refusal(CKR_ATTRIBUTE_TYPE_INVALID, "the object has no type=", type);
    const bool stricter = (type == CKA_SENSITIVE && changes.flag(type) == true) ||
                          (type == CKA_EXTRACTABLE && changes.flag(type) == false) ||
                          (type == CKA_PRIVATE && changes.flag(type) == true && !onToken) ||
                          (type == CKA_MODIFIABLE && changes.flag(type) == false && !onToken);
    if (type == CKA_LABEL || type == CKA_ID || type == CKA_TOKEN || stricter || original.match(entry)) continue;
    throw Refusal(CKR_ATTRIBUTE_READ_ONLY, "a copy cannot change type=", type);
  }
}

// Makes both halves of a session key pair token objects with new handles. A later copy of the other half returns the
// object that exists. The old handles end with their session.
std::shared_ptr<Object> keepKeyPair(ModuleLock& module, const Session& session, const Object& original,
                                    const Template& changes) {
  requireTokenWriteAccess(session);
  useLogin(module, session.token);
  ObjectTable& objects = module.state().objects;
  for (const CK_OBJECT_CLASS half : {CKO_PUBLIC_KEY, CKO_PRIVATE_KEY}) {
    const auto old = objects.ofModule(session.token, moduleHandleOf(half, original.moduleHandle));
    if (!old || old->session == 0) continue;  // the other half was copied before
    old->kept = true;
    objects.release(*old);
  }
  auto made = objects.ofModule(session.token, original.moduleHandle);
  made->imported = original.imported;
  relabel(module, *made, changes);
  return made;
}

std::shared_ptr<Object> copyInLibrary(ModuleLock& module, const Session& session, const Attributes& original,
                                      const Template& changes) {
  Attributes made = original;
  for (const CK_ATTRIBUTE& entry : changes.entries()) made.set(entry.type, valueOf(entry));
  made.setFlag(CKA_TOKEN, false);
  for (const CK_ATTRIBUTE_TYPE use : {CKA_ENCRYPT, CKA_VERIFY})
    if (made.find(use)) made.setFlag(use, false);
  return addSessionObject(module, session, std::move(made));
}

std::shared_ptr<Object> copyObject(ModuleLock& module, const Session& session, Object& original,
                                   const Template& changes) {
  const Attributes& attributes = readAttributes(module, original);
  const bool onToken = changes.flag(CKA_TOKEN).value_or(original.session == 0);
  if (!attributes.flag(CKA_COPYABLE)) throw Refusal(CKR_ACTION_PROHIBITED, "not copyable, handle=", original.handle);
  checkCopyTemplate(attributes, changes, onToken);
  if (original.isTokenKey() && original.session != 0 && onToken) {
    return keepKeyPair(module, session, original, changes);
  }
  if (original.isTokenKey() && (onToken || original.isPrivate)) {
    throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the token keeps a key once, handle=", original.handle);
  }
  if (!onToken) return copyInLibrary(module, session, attributes, changes);
  if (original.objectClass != CKO_CERTIFICATE) {
    throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the token cannot keep the object, handle=", original.handle);
  }
  Attributes made;
  for (const CK_ATTRIBUTE_TYPE type : {CKA_CLASS, CKA_CERTIFICATE_TYPE, CKA_VALUE, CKA_SUBJECT, CKA_LABEL, CKA_ID})
    made.set(type, changes.bytes(type).value_or(*attributes.find(type)));
  made.setFlag(CKA_TOKEN, true);
  const std::vector<CK_ATTRIBUTE> entries = made.asTemplate();
  return createCertificate(module, session, Template(entries.data(), static_cast<CK_ULONG>(entries.size())));
}

}  // namespace

CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE_PTR phObject) {
  return sessionCall("C_CreateObject", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    if (!pTemplate) return call.refuse(CKR_ARGUMENTS_BAD, "pTemplate is NULL");
    if (!phObject) return call.refuse(CKR_ARGUMENTS_BAD, "phObject is NULL");
    const Template given(pTemplate, ulCount);
    const bool isPrivateKey = given.requiredNumber(CKA_CLASS) == CKO_PRIVATE_KEY;
    checkLabelAndId(given);
    const bool isPrivate = given.flag(CKA_PRIVATE).value_or(isPrivateKey);
    if (given.flag(CKA_TOKEN).value_or(false) && !session.readWrite) {
      return call.refuse(CKR_SESSION_READ_ONLY, "the session is read-only");
    }
    if (isPrivate) session.requireUser();
    ModuleLock module(state);
    *phObject = createObject(module, session, given)->handle;
    return CKR_OK;
  });
}

CK_RV C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                   CK_OBJECT_HANDLE_PTR phNewObject) {
  return sessionCall("C_CopyObject", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    if (!phNewObject) return call.refuse(CKR_ARGUMENTS_BAD, "phNewObject is NULL");
    const Template changes(pTemplate, ulCount);
    checkLabelAndId(changes);
    ModuleLock module(state);
    const auto original = requiredObject(module, session, hObject);
    *phNewObject = copyObject(module, session, *original, changes)->handle;
    return CKR_OK;
  });
}
