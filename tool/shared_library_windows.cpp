#include <windows.h>

#include <array>
#include <fstream>
#include <system_error>
#include <vector>

#include "softtoken/failure.h"
#include "softtoken/platform.h"
#include "tool/shared_library.h"

namespace tool {
namespace {

constexpr DWORD longestPath = 32768;

std::filesystem::path fileOf(HMODULE library) {
  std::vector<wchar_t> file(longestPath);
  return {file.begin(), file.begin() + ::GetModuleFileNameW(library, file.data(), longestPath)};
}

// The type of processor in the header of a program file; 0 for other files.
unsigned machineOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const auto numberAt = [&](std::streamoff place, int bytes) {
    std::array<unsigned char, 4> field{};
    stream.seekg(place);
    stream.read(reinterpret_cast<char*>(field.data()), bytes);
    return field[0] | unsigned{field[1]} << 8 | unsigned{field[2]} << 16 | unsigned{field[3]} << 24;
  };
  constexpr unsigned dosMark = 0x5A4D;
  constexpr unsigned peMark = 0x4550;
  if (numberAt(0, 2) != dosMark) return 0;
  const unsigned header = numberAt(0x3C, 4);
  return numberAt(header, 4) == peMark ? numberAt(std::streamoff{header} + 4, 2) : 0;
}

// Windows' error in words.
std::string reasonOf(const std::filesystem::path& file, DWORD error) {
  std::error_code ignored;
  if (!std::filesystem::exists(file, ignored)) return "there is no such file";
  const unsigned machine = machineOf(file);
  if (machine == 0) return "the file is no DLL";
  if (machine == IMAGE_FILE_MACHINE_I386) return "the file is a 32-bit DLL, and this program is a 64-bit one";
  if (machine != IMAGE_FILE_MACHINE_AMD64) return "the file is a DLL for another kind of processor";
  const std::string number = " (Windows error " + std::to_string(error) + ")";
  if (error == ERROR_MOD_NOT_FOUND) return "a DLL that it needs is missing, probably TavrinDSCLibrary.dll" + number;
  if (error == ERROR_PROC_NOT_FOUND)
    return "TavrinDSCLibrary.dll lacks an operation of the module. Probably this module is a mingw-w64 build and the "
           "library one of Microsoft's compiler; build the module with the library's compiler" +
           number;
  return "it cannot be loaded" + number;
}

}  // namespace

const char* const moduleFileName = "TavrinPKCS11.dll";
const char* const deviceLibraryFileName = "TavrinDSCLibrary.dll";

std::filesystem::path programFolder() { return fileOf(nullptr).parent_path(); }

void* loadLibrary(const std::filesystem::path& file, std::string& warning) {
  const std::filesystem::path full = std::filesystem::absolute(file);
  if (HMODULE library = ::LoadLibraryW(full.c_str())) return library;
  const DWORD error = ::GetLastError();
  // With the altered search path, Windows looks for further DLLs in the module's folder.
  HMODULE library = ::LoadLibraryExW(full.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (!library)
    throw softtoken::Failure(softtoken::Status::notFound, softtoken::textOf(file) + ": " + reasonOf(full, error));
  warning = std::string("applications that load the module by its path do not find ") + deviceLibraryFileName +
            " beside it; add its folder to PATH";
  return library;
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
