#include <windows.h>
// After windows.h, on which it depends.
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "load_module.h"

void* openLibrary(const std::string& path) {
  // The device library is in the module's folder. With these flags and a full path, Windows searches that folder too.
  const std::string fullPath = std::filesystem::absolute(path).string();
  HMODULE library =
      LoadLibraryExA(fullPath.c_str(), nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS | LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR);
  if (!library) {
    throw std::runtime_error("cannot load " + fullPath + ": Windows error " + std::to_string(GetLastError()));
  }
  return library;
}

void* findFunction(void* library, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void closeLibrary(void* library) { FreeLibrary(static_cast<HMODULE>(library)); }

// The console shows a character correctly only if all its bytes arrive in one write. So the output has a buffer, and
// binary mode: in text mode the C library may convert it byte by byte.
Utf8Console::Utf8Console() : before(GetConsoleOutputCP()) {
  SetConsoleOutputCP(CP_UTF8);
  if (!_isatty(_fileno(stdout))) return;
  std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
  _setmode(_fileno(stdout), _O_BINARY);
}

Utf8Console::~Utf8Console() {
  std::fflush(stdout);
  if (before != 0) SetConsoleOutputCP(before);
}
