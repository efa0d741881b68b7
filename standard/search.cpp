// C_FindObjectsInit, C_FindObjects and C_FindObjectsFinal.
#include <algorithm>

#include "objects/handle_ranges.h"
#include "standard/call_frames.h"
#include "standard/object_changes.h"
#include "standard/output.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

using ModuleHandles = std::vector<CK_OBJECT_HANDLE>;

// What the module compares by itself: no empty values, and labels up to a NUL. Key pairs are searched as public keys.
bool isFilter(const CK_ATTRIBUTE& entry, CK_OBJECT_CLASS objectClass) {
  const CK_ATTRIBUTE_TYPE type = entry.type;
  const ByteView value = valueOf(entry);
  if (type == CKA_LABEL) return !value.empty() && std::ranges::find(value, 0) == value.end();
  const bool isOfClass =
      objectClass == CKO_CERTIFICATE ? type == CKA_VALUE || type == CKA_SUBJECT : type == CKA_MODULUS;
  return (type == CKA_ID || isOfClass) && !value.empty();
}

// One search in the module, in ascending order.
ModuleHandles searchModule(ModuleLock& module, Token& token, std::span<CK_ATTRIBUTE> wanted) {
  const CK_SESSION_HANDLE session = lockedSession(module, token);
  ModuleHandles& found = module.state().foundInModule;
  CK_ULONG count = 0;
  CK_RV code = module->C_FindObjectsInit(session, wanted.data(), static_cast<CK_ULONG>(wanted.size()));
  if (code == CKR_OK) {
    code = module->C_FindObjects(session, found.data(), static_cast<CK_ULONG>(found.size()), &count);
    module->C_FindObjectsFinal(session);
  }
  if (code != CKR_OK) throw moduleFailure(module, token, "C_FindObjectsInit", code);
  ModuleHandles result(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(count));
  std::ranges::sort(result);
  return result;
}

// The certificates, or the public keys, that the module finds by each of the template's filters.
ModuleHandles searchClass(ModuleLock& module, Token& token, CK_OBJECT_CLASS objectClass, const Template& wanted) {
  std::optional<ModuleHandles> found;
  for (const CK_ATTRIBUTE& entry : wanted.entries()) {
    if (!isFilter(entry, objectClass)) continue;
    std::string value(static_cast<const char*>(entry.pValue), entry.ulValueLen);  // ends with a NUL, for labels
    CK_ATTRIBUTE filters[] = {{CKA_CLASS, &objectClass, sizeof objectClass},
                              {entry.type, value.data(), entry.ulValueLen}};
    const ModuleHandles matches = searchModule(module, token, filters);
    if (!found) found = matches;
    std::erase_if(*found, [&](const auto handle) { return !std::ranges::binary_search(matches, handle); });
    if (found->empty()) return {};
  }
  if (found) return *found;
  CK_ATTRIBUTE filter{CKA_CLASS, &objectClass, sizeof objectClass};
  return searchModule(module, token, {&filter, 1});
}

// Whether the object has the attribute. The module has applied the filters; class, token and private need no reading.
bool matches(ModuleLock& module, Object& object, const CK_ATTRIBUTE& entry) {
  const CK_ATTRIBUTE_TYPE type = entry.type;
  const bool inModule = object.moduleHandle != 0;
  if (inModule && (type == CKA_TOKEN || type == CKA_PRIVATE)) {
    const ByteView value = valueOf(entry);
    const bool has = type == CKA_TOKEN ? object.session == 0 : object.isPrivate;
    return value.size() == sizeof(CK_BBOOL) && value.front() == (has ? CK_TRUE : CK_FALSE);
  }
  if (inModule && isFilter(entry, object.objectClass)) return true;
  const Attributes& known = knownAttributes(module, object);
  if (!known.match(entry) || isSensitive(object, known, type)) return false;
  return (type != CKA_LABEL && type != CKA_ID) || readAttributes(module, object).match(entry);
}

bool matchesAll(ModuleLock& module, Object& object, const Template& wanted) {
  try {
    return std::ranges::all_of(wanted.entries(), [&](const CK_ATTRIBUTE& entry) {
      return entry.type == CKA_CLASS || matches(module, object, entry);
    });
  } catch (const Refusal& refusal) {
    if (refusal.code() != CKR_OBJECT_HANDLE_INVALID) throw;
    return false;  // deleted in the meantime
  }
}

class Collector {
 public:
  Collector(ModuleLock& module, const Session& session, const Template& wanted)
      : module_(module), session_(session), wanted_(wanted) {}

  std::vector<CK_OBJECT_HANDLE> collect() {
    if (wants(CKO_PUBLIC_KEY) || wants(CKO_PRIVATE_KEY)) collectKeys();
    if (wants(CKO_CERTIFICATE)) collectCertificates();
    for (const auto& object : module_.state().objects.all())
      if (object->moduleHandle == 0) consider(object);
    return std::move(found_);
  }

 private:
  bool wants(CK_OBJECT_CLASS objectClass) const {
    const auto wanted = wanted_.bytes(CKA_CLASS);
    return !wanted || (wanted->size() == sizeof objectClass && wanted_.number(CKA_CLASS) == objectClass);
  }

  void collectKeys() {
    const bool privateToo = wants(CKO_PRIVATE_KEY) && session_.token.login == Login::user;
    for (const CK_OBJECT_HANDLE handle : searchClass(module_, session_.token, CKO_PUBLIC_KEY, wanted_)) {
      const auto publicHalf = wants(CKO_PUBLIC_KEY) ? ofModule(handle) : nullptr;
      const auto privateHalf = privateToo ? ofModule(moduleHandleOf(CKO_PRIVATE_KEY, handle)) : nullptr;
      consider(publicHalf);
      consider(privateHalf);
    }
  }

  void collectCertificates() {
    for (const CK_OBJECT_HANDLE handle : searchClass(module_, session_.token, CKO_CERTIFICATE, wanted_))
      if (handle != certificateBase) consider(ofModule(handle));  // the module lists the number 0 but cannot read it
  }

  std::shared_ptr<Object> ofModule(CK_OBJECT_HANDLE handle) {
    return module_.state().objects.ofModule(session_.token, handle);
  }

  void consider(const std::shared_ptr<Object>& object) {
    if (object && isVisible(*object, session_) && wants(object->objectClass) && matchesAll(module_, *object, wanted_)) {
      found_.push_back(object->handle);
    }
  }

  ModuleLock& module_;
  const Session& session_;
  const Template& wanted_;
  std::vector<CK_OBJECT_HANDLE> found_;
};

}  // namespace

std::vector<CK_OBJECT_HANDLE> tavrin::standard::findObjects(ModuleLock& module, const Session& session,
                                                            const Template& wanted) {
  return Collector(module, session, wanted).collect();
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
  return sessionCall("C_FindObjectsInit", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    if (session.search) return call.refuse(CKR_OPERATION_ACTIVE, "a search is active");
    const Template wanted(pTemplate, ulCount);
    ModuleLock module(state);
    std::vector<CK_OBJECT_HANDLE> found = findObjects(module, session, wanted);
    // The module finds no objects on a removed token.
    if (found.empty()) state.tokens.refresh(module);
    session.requireAlive();
    session.search = Search{std::move(found)};
    return CKR_OK;
  });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                    CK_ULONG_PTR pulObjectCount) {
  return sessionCall("C_FindObjects", hSession, [&](const Call& call, State&, Session& session) -> CK_RV {
    if (!session.search) return refuseNotInitialized(call);
    if (!phObject && ulMaxObjectCount != 0) return call.refuse(CKR_ARGUMENTS_BAD, "phObject is NULL");
    if (!pulObjectCount) return call.refuse(CKR_ARGUMENTS_BAD, "pulObjectCount is NULL");
    Search& search = *session.search;
    const std::size_t count = std::min<std::size_t>(ulMaxObjectCount, search.found.size() - search.next);
    std::copy_n(search.found.begin() + static_cast<std::ptrdiff_t>(search.next), count, phObject);
    search.next += count;
    *pulObjectCount = static_cast<CK_ULONG>(count);
    return CKR_OK;
  });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession) {
  return sessionCall("C_FindObjectsFinal", hSession, [&](const Call& call, State&, Session& session) -> CK_RV {
    if (!session.search) return refuseNotInitialized(call);
    session.search.reset();
    return CKR_OK;
  });
}
