#include <dlfcn.h>

#include <stdexcept>

#include "load_module.h"

void* openLibrary(const std::string& path) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) throw std::runtime_error(dlerror());
  return library;
}

void* findFunction(void* library, const char* name) { return dlsym(library, name); }

void closeLibrary(void* library) { dlclose(library); }

Utf8Console::Utf8Console() = default;

Utf8Console::~Utf8Console() = default;
