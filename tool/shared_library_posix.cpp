#include <dlfcn.h>
#include <link.h>

#include "softtoken/failure.h"
#include "softtoken/platform.h"
#include "tool/shared_library.h"

namespace tool {

const char* const moduleFileName = "libtavrin-pkcs11.so";
const char* const deviceLibraryFileName = "libTavrinDSCLibrary.so";

std::filesystem::path programFolder() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}

void* loadLibrary(const std::filesystem::path& file, std::string&) {
  void* library = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) throw softtoken::Failure(softtoken::Status::notFound, ::dlerror());
  return library;
}

void unloadLibrary(void* library) { ::dlclose(library); }

void* findFunction(void* library, const char* name) { return ::dlsym(library, name); }

std::string fileOfFunction(void* function) {
  Dl_info info{};
  return ::dladdr(function, &info) != 0 && info.dli_fname ? info.dli_fname : "";
}

std::string fileOfLibrary(const char* fileName) {
  void* library = ::dlopen(fileName, RTLD_LAZY | RTLD_NOLOAD);
  if (!library) return {};
  link_map* map = nullptr;
  std::string file;
  if (::dlinfo(library, RTLD_DI_LINKMAP, &map) == 0 && map) file = map->l_name;
  ::dlclose(library);
  return file;
}

std::string fileVersion(const std::string&) { return {}; }

}  // namespace tool
