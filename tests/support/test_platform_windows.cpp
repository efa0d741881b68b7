#include <windows.h>

#include <filesystem>

#include "test_platform.h"

namespace testPlatform {
namespace {

void writeLogLevel(DWORD type, const void* bytes, DWORD length) {
  HKEY key = nullptr;
  RegCreateKeyA(HKEY_LOCAL_MACHINE, "Software\\Quorvane Telemantix\\Tavrin", &key);
  if (bytes) {
    RegSetValueExA(key, "logLevel", 0, type, static_cast<const BYTE*>(bytes), length);
  } else {
    RegDeleteValueA(key, "logLevel");
  }
  RegCloseKey(key);
}

}  // namespace

void setEnvironment(const char* name, const char* value) { SetEnvironmentVariableA(name, value); }

void setLogLevel(std::optional<std::uint32_t> level) {
  writeLogLevel(REG_DWORD, level ? &*level : nullptr, sizeof(std::uint32_t));
}

std::vector<OddLogLevel> oddLogLevels() {
  static const char zeros[33] = {};
  return {{[] { writeLogLevel(REG_SZ, "3", 2); }, true, false},
          {[] { writeLogLevel(REG_BINARY, "\x03\x01", 2); }, true, true},
          {[] { writeLogLevel(REG_BINARY, zeros, 32); }, false, false},
          {[] { writeLogLevel(REG_BINARY, zeros, 33); }, true, false}};
}

bool appendsAtomically() { return GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") == nullptr; }

int exitCodeOfFork(const std::function<int()>&) { return -1; }

std::intptr_t startSelf(const std::vector<std::string>& arguments) {
  char program[MAX_PATH] = {};
  GetModuleFileNameA(nullptr, program, sizeof program);
  std::string line = '"' + std::string(program) + '"';
  for (const std::string& argument : arguments) line += " \"" + argument + '"';
  STARTUPINFOA start = {};
  start.cb = sizeof start;
  PROCESS_INFORMATION child = {};
  CreateProcessA(program, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start, &child);
  CloseHandle(child.hThread);
  return reinterpret_cast<std::intptr_t>(child.hProcess);
}

bool killProcess(std::intptr_t process) {
  constexpr UINT killed = 0xDEAD;
  const auto handle = reinterpret_cast<HANDLE>(process);
  DWORD code = 0;
  TerminateProcess(handle, killed);
  WaitForSingleObject(handle, INFINITE);
  GetExitCodeProcess(handle, &code);
  CloseHandle(handle);
  return code == killed;
}

void forEachMemoryBlock(std::intptr_t process, const std::function<void(std::span<const std::uint8_t>)>& look) {
  const auto handle = reinterpret_cast<HANDLE>(process);
  MEMORY_BASIC_INFORMATION info = {};
  for (char* at = nullptr; VirtualQueryEx(handle, at, &info, sizeof info) != 0;
       at = static_cast<char*>(info.BaseAddress) + info.RegionSize) {
    if (info.State != MEM_COMMIT || (info.Protect & (PAGE_GUARD | PAGE_NOACCESS)) != 0) continue;
    std::vector<std::uint8_t> block(info.RegionSize);
    SIZE_T size = 0;
    ReadProcessMemory(handle, info.BaseAddress, block.data(), block.size(), &size);
    look(std::span(block).first(size));
  }
}

bool limitFileSize(std::optional<std::size_t>) { return false; }

}  // namespace testPlatform
