// C_GetAttributeValue, C_SetAttributeValue and C_GetObjectSize.
#include "standard/call_frames.h"
#include "standard/object_changes.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

// Fills in one entry of the template and returns its code.
CK_RV answer(const Object& object, const Attributes& attributes, CK_ATTRIBUTE& entry) {
  const SecretBytes* value = attributes.find(entry.type);
  const bool sensitive = isSensitive(object, attributes, entry.type);
  const CK_ULONG room = entry.ulValueLen;
  entry.ulValueLen = CK_UNAVAILABLE_INFORMATION;
  if (sensitive) return CKR_ATTRIBUTE_SENSITIVE;
  if (!value) return CKR_ATTRIBUTE_TYPE_INVALID;
  if (entry.pValue && room < value->size()) return CKR_BUFFER_TOO_SMALL;
  if (entry.pValue) std::ranges::copy(*value, static_cast<CK_BYTE_PTR>(entry.pValue));
  entry.ulValueLen = static_cast<CK_ULONG>(value->size());
  return CKR_OK;
}

}  // namespace

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount) {
  return sessionCall("C_GetAttributeValue", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    if (!pTemplate && ulCount != 0) return call.refuse(CKR_ARGUMENTS_BAD, "pTemplate is NULL");
    ModuleLock module(state);
    const auto object = requiredObject(module, session, hObject);
    const Attributes& attributes = readAttributes(module, *object);
    CK_RV code = CKR_OK;
    for (CK_ULONG i = 0; i < ulCount; ++i) {
      const CK_ATTRIBUTE_TYPE type = pTemplate[i].type;
      const CK_RV answered = answer(*object, attributes, pTemplate[i]);
      if (answered != CKR_OK) logDebug(call.name(), ": no value for type=", type, ", result=", answered);
      if (code == CKR_OK) code = answered;
    }
    return code;
  });
}

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount) {
  return sessionCall("C_SetAttributeValue", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    if (!pTemplate) return call.refuse(CKR_ARGUMENTS_BAD, "pTemplate is NULL");
    const Template wanted(pTemplate, ulCount);
    ModuleLock module(state);
    const auto object = requiredObject(module, session, hObject);
    requireWriteAccess(session, *object);
    const Attributes& attributes = readAttributes(module, *object);
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
      const CK_ATTRIBUTE_TYPE type = entry.type;
      if (!attributes.find(type) && !isSensitive(*object, attributes, type))
        return call.refuse(CKR_ATTRIBUTE_TYPE_INVALID, "the object has no type=", type);
      if (attributes.match(entry) && !isSensitive(*object, attributes, type)) continue;
      if (!attributes.flag(CKA_MODIFIABLE)) return call.refuse(CKR_ACTION_PROHIBITED, "not modifiable");
      const bool changeable = type == CKA_LABEL || type == CKA_ID || type == CKA_SUBJECT;
      if (!changeable) return call.refuse(CKR_ATTRIBUTE_READ_ONLY, "read-only type=", type);
    }
    relabel(module, *object, wanted);
    return CKR_OK;
  });
}

CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize) {
  return sessionCall("C_GetObjectSize", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    if (!pulSize) return call.refuse(CKR_ARGUMENTS_BAD, "pulSize is NULL");
    ModuleLock module(state);
    const auto object = requiredObject(module, session, hObject);
    std::size_t size = 0;
    for (const auto& [type, value] : readAttributes(module, *object).all()) size += value.size();
    *pulSize = static_cast<CK_ULONG>(size);
    return CKR_OK;
  });
}
