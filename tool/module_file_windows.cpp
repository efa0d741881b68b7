#include <windows.h>

#include <system_error>
#include <vector>

#include "softtoken/failure.h"
#include "softtoken/platform.h"
#include "tool/module_file.h"

namespace tool {
namespace {

constexpr DWORD longestPath = 32768;

std::filesystem::path fileOf(HMODULE library) {
  std::vector<wchar_t> file(longestPath);
  return {file.begin(), file.begin() + ::GetModuleFileNameW(library, file.data(), longestPath)};
}

}  // namespace

const char* const moduleFileName = "TavrinPKCS11.dll";
const char* const deviceLibraryFileName = "TavrinDSCLibrary.dll";

std::filesystem::path programFolder() { return fileOf(nullptr).parent_path(); }

void* loadLibrary(const std::filesystem::path& file) {
  // The altered search path leads to the libraries beside the module; it is defined for full paths alone.
  HMODULE library = ::LoadLibraryExW(std::filesystem::absolute(file).c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (library) return library;
  const auto error = static_cast<int>(::GetLastError());
  throw softtoken::Failure(softtoken::Status::notFound,
                           softtoken::textOf(file) + ": Windows error " + std::to_string(error));
}

void unloadLibrary(void* library) { ::FreeLibrary(static_cast<HMODULE>(library)); }

void* findFunction(void* library, const char* name) {
  return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

std::string fileOfFunction(void* function) {
  HMODULE library = nullptr;
  const DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  if (!::GetModuleHandleExW(flags, static_cast<LPCWSTR>(function), &library)) return {};
  return softtoken::textOf(fileOf(library));
}

std::string fileOfLibrary(const char* fileName) {
  HMODULE library = ::GetModuleHandleA(fileName);
  return library ? softtoken::textOf(fileOf(library)) : std::string();
}

std::string fileVersion(const std::string& file) {
  const std::filesystem::path path = softtoken::pathOf(file);
  std::vector<std::uint8_t> block(::GetFileVersionInfoSizeW(path.c_str(), nullptr));
  void* found = nullptr;
  UINT size = 0;
  if (block.empty() || !::GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) ||
      !::VerQueryValueW(block.data(), L"\\", &found, &size) || size < sizeof(VS_FIXEDFILEINFO))
    return {};
  const auto* version = static_cast<const VS_FIXEDFILEINFO*>(found);
  std::string text = std::to_string(HIWORD(version->dwFileVersionMS));
  for (const WORD part :
       {LOWORD(version->dwFileVersionMS), HIWORD(version->dwFileVersionLS), LOWORD(version->dwFileVersionLS)})
    text.append(1, '.').append(std::to_string(part));
  return text;
}

}  // namespace tool
