#include <dlfcn.h>
#include <sys/mman.h>

#include <string>

#include "standard/system.h"

namespace tavrin::standard {

void* openModuleFile() {
  Dl_info own;
  static const char anchor = 0;
  if (dladdr(&anchor, &own) == 0 || own.dli_fname == nullptr) return nullptr;
  const std::string path = own.dli_fname;
  const std::string folder = path.find('/') == std::string::npos ? "./" : path.substr(0, path.rfind('/') + 1);
  return dlopen((folder + "libtavrin-pkcs11.so").c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* findModuleFunction(void* file, const char* name) { return dlsym(file, name); }

void closeModuleFile(void* file) { dlclose(file); }

void lockInMemory(void* memory, std::size_t size) { static_cast<void>(mlock(memory, size)); }

}  // namespace tavrin::standard
