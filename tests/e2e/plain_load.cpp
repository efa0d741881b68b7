// Loads the module with plain LoadLibrary, and prints the path from which Windows loaded the device library.
#include <windows.h>

#include <cstdio>

int main(int argc, char** argv) {
  HMODULE module = argc == 2 ? LoadLibraryA(argv[1]) : nullptr;
  if (!module) {
    std::printf("Windows error %lu\n", GetLastError());
    return 1;
  }
  char file[MAX_PATH] = "";
  GetModuleFileNameA(GetModuleHandleA("TavrinDSCLibrary.dll"), file, sizeof file);
  std::printf("%s\n", file);
  FreeLibrary(module);
}
