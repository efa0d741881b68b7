#include "standard/module_library.h"

#include "standard/refusal.h"
#include "standard/system.h"

namespace tavrin::standard {

ModuleLibrary::ModuleLibrary() : file_(openModuleFile()) {
  if (!file_) throw Refusal(CKR_GENERAL_ERROR, "the module beside this library cannot be loaded");
  const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(findModuleFunction(file_, "C_GetFunctionList"));
  if (!getFunctionList || getFunctionList(&functions_) != CKR_OK) {
    closeModuleFile(file_);
    throw Refusal(CKR_GENERAL_ERROR, "the module beside this library has no function list");
  }
}

ModuleLibrary::~ModuleLibrary() { closeModuleFile(file_); }

}  // namespace tavrin::standard
