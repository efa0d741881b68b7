#include "load_module.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

void check(CK_RV result, const char* call) {
  if (result == CKR_OK) return;
  char code[24];
  std::snprintf(code, sizeof(code), "0x%lX", static_cast<unsigned long>(result));
  throw std::runtime_error(std::string(call) + " failed with " + code);
}

CryptokiModule::CryptokiModule(const std::string& path) : library(openLibrary(path)) {
  // A client looks up only this function by name. All others are in the list that it returns.
  const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(findFunction(library, "C_GetFunctionList"));
  try {
    if (!getFunctionList) throw std::runtime_error(path + " is no Cryptoki library: it lacks C_GetFunctionList");
    check(getFunctionList(&functions), "C_GetFunctionList");
    check(functions->C_Initialize(nullptr), "C_Initialize");
  } catch (...) {
    closeLibrary(library);
    throw;
  }
}

CryptokiModule::~CryptokiModule() {
  functions->C_Finalize(nullptr);
  closeLibrary(library);
}

std::vector<CK_SLOT_ID> slotsWithToken(const CryptokiModule& module) {
  // The first call returns the number of slots, the second the list. A token may be removed in between.
  CK_ULONG count = 0;
  check(module->C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
  std::vector<CK_SLOT_ID> slots(count);
  check(module->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
  slots.resize(count);
  return slots;
}

std::string textOf(const CK_UTF8CHAR* field, std::size_t size) {
  std::string text(field, std::find(field, field + size, '\0'));
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}
