#include <dlfcn.h>
#include <limits.h>
#include <sys/mman.h>

#include <filesystem>

#include "standard/system.h"

namespace tavrin::standard {
namespace {

// The path of this library's file. It is read on loading: it may be relative to the working folder of that moment.
const struct OwnFile {
  OwnFile() {
    Dl_info own;
    std::error_code error;
    if (dladdr(this, &own) != 0) std::filesystem::absolute(own.dli_fname, error).native().copy(path, sizeof path - 1);
  }
  char path[PATH_MAX] = {};
} ownFile;

}  // namespace

void* openModuleFile() {
  if (ownFile.path[0] == '\0') return nullptr;
  const auto module = std::filesystem::path(ownFile.path).replace_filename("libtavrin-pkcs11.so");
  return dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* findModuleFunction(void* file, const char* name) { return dlsym(file, name); }

void closeModuleFile(void* file) { dlclose(file); }

void lockInMemory(void* memory, std::size_t size) { static_cast<void>(mlock(memory, size)); }

}  // namespace tavrin::standard
