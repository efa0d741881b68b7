// The loaded module: its file and its functions.
#pragma once

#include "standard/cryptoki.h"

namespace tavrin::standard {

class ModuleLibrary {
 public:
  // Loads the module from this library's folder. Throws CKR_GENERAL_ERROR when it is missing or no Cryptoki library.
  ModuleLibrary();
  ~ModuleLibrary();
  ModuleLibrary(const ModuleLibrary&) = delete;
  ModuleLibrary& operator=(const ModuleLibrary&) = delete;

  const CK_FUNCTION_LIST* operator->() const { return functions_; }

 private:
  void* file_;
  CK_FUNCTION_LIST_PTR functions_ = nullptr;
};

}  // namespace tavrin::standard
