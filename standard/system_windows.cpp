#include <windows.h>

#include <string>

#include "standard/system.h"

namespace tavrin::standard {
namespace {

// The path of this library's own file; empty when the system does not report it.
std::wstring ownPath() {
  static const char anchor = 0;
  HMODULE own = nullptr;
  if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          &anchor, &own)) {
    return {};
  }
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(own, path.data(), static_cast<DWORD>(path.size())));
  return path;
}

}  // namespace

void* openModuleFile() {
  const std::wstring path = ownPath();
  if (path.empty()) return nullptr;
  const std::wstring module = path.substr(0, path.find_last_of(L"\\/") + 1) + L"TavrinPKCS11.dll";
  return LoadLibraryExW(module.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

void* findModuleFunction(void* file, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(file), name));
}

void closeModuleFile(void* file) { FreeLibrary(static_cast<HMODULE>(file)); }

void lockInMemory(void* memory, std::size_t size) { VirtualLock(memory, size); }

}  // namespace tavrin::standard
