#include "tool/module_session.h"

#include <algorithm>
#include <cstdio>

#include "softtoken/failure.h"
#include "tool/shared_library.h"

namespace tool {

using softtoken::Bytes;
using softtoken::Failure;
using softtoken::Status;

void check(CK_RV result, const char* call) {
  if (result == CKR_OK) return;
  char code[24];
  std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(result));
  throw Failure(Status::deviceFault, std::string(call) + " failed with " + code);
}

LoadedModule::LoadedModule(const std::filesystem::path& file, std::string& warning)
    : handle_(loadLibrary(file, warning)), entry_(findFunction(handle_, "C_GetFunctionList")) {
  const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(entry_);
  if (getFunctionList && getFunctionList(&functions_) == CKR_OK) return;
  unloadLibrary(handle_);
  throw Failure(Status::notFound, softtoken::textOf(file) + " is no Cryptoki module");
}

LoadedModule::~LoadedModule() { unloadLibrary(handle_); }

std::string LoadedModule::path() const { return fileOfFunction(entry_); }

InitialisedModule::InitialisedModule(CK_FUNCTION_LIST* functions) : functions_(functions) {
  check(functions->C_Initialize(nullptr), "C_Initialize");
}

InitialisedModule::~InitialisedModule() { functions_->C_Finalize(nullptr); }

std::vector<CK_SLOT_ID> slotsWithToken(CK_FUNCTION_LIST* functions) {
  CK_ULONG count = 0;
  check(functions->C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
  std::vector<CK_SLOT_ID> slots(count);
  if (count > 0) check(functions->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
  slots.resize(std::min<std::size_t>(count, slots.size()));
  return slots;
}

std::string textInField(const CK_UTF8CHAR* field, std::size_t size) {
  std::string text(field, std::find(field, field + size, '\0'));
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

Session::Session(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, bool readOnly) : functions_(functions) {
  const CK_FLAGS flags = CKF_SERIAL_SESSION | (readOnly ? 0 : CKF_RW_SESSION);
  check(functions->C_OpenSession(slot, flags, nullptr, nullptr, &handle_), "C_OpenSession");
}

Session::~Session() { functions_->C_CloseSession(handle_); }
std::vector<CK_OBJECT_HANDLE> Session::objects(CK_OBJECT_CLASS objectClass) const {
  CK_ATTRIBUTE wanted = {CKA_CLASS, &objectClass, sizeof objectClass};
  check(functions_->C_FindObjectsInit(handle_, &wanted, 1), "C_FindObjectsInit");
  std::vector<CK_OBJECT_HANDLE> found;
  CK_OBJECT_HANDLE batch[64];
  CK_ULONG count = 0;
  CK_RV result = CKR_OK;
  while ((result = functions_->C_FindObjects(handle_, batch, std::size(batch), &count)) == CKR_OK && count > 0)
    found.insert(found.end(), batch, batch + count);
  functions_->C_FindObjectsFinal(handle_);
  check(result, "C_FindObjects");
  return found;
}

Bytes Session::bytes(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
  CK_ATTRIBUTE attribute = {type, nullptr, 0};
  check(functions_->C_GetAttributeValue(handle_, object, &attribute, 1), "C_GetAttributeValue");
  if (attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION) return {};
  Bytes value(attribute.ulValueLen);
  attribute.pValue = value.data();
  if (!value.empty()) check(functions_->C_GetAttributeValue(handle_, object, &attribute, 1), "C_GetAttributeValue");
  return value;
}

std::string Session::text(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
  const Bytes value = bytes(object, type);
  return {value.begin(), std::ranges::find(value, 0)};
}

CK_ULONG Session::number(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
  CK_ULONG value = 0;
  CK_ATTRIBUTE attribute = {type, &value, sizeof value};
  check(functions_->C_GetAttributeValue(handle_, object, &attribute, 1), "C_GetAttributeValue");
  return value;
}

}  // namespace tool
