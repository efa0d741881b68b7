// A custom action of the installer: place_device_library install|remove FOLDER
//
// A user may have replaced the software token's TavrinDSCLibrary.dll by the token maker's. Windows Installer would
// overwrite or remove that file, so this program handles it. "install" copies the software token from FOLDER\SoftToken
// unless the library in FOLDER is another one. "remove" deletes the library only if it is the software token. A library
// that a program has loaded is renamed, and deleted at the next restart. "remove" also deletes the semicolon that
// Windows Installer can leave at the end of PATH.
#include <windows.h>

#include <cwchar>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr wchar_t libraryName[] = L"\\TavrinDSCLibrary.dll";
constexpr wchar_t softTokenProduct[] = L"Tavrin Software Token";  // in its version resource

bool isFile(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

bool isSoftToken(const std::wstring& path) {
  std::vector<BYTE> block(GetFileVersionInfoSizeW(path.c_str(), nullptr));
  void* text = nullptr;
  UINT length = 0;
  return !block.empty() && GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) != 0 &&
         VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\ProductName", &text, &length) != 0 &&
         std::wcscmp(static_cast<const wchar_t*>(text), softTokenProduct) == 0;
}

// A loaded library can be renamed, but neither overwritten nor deleted.
bool removeFile(const std::wstring& path) {
  if (!isFile(path) || DeleteFileW(path.c_str())) return true;
  const std::wstring old = path + L"." + std::to_wstring(GetTickCount64()) + L".old";
  if (!MoveFileExW(path.c_str(), old.c_str(), 0)) return false;
  MoveFileExW(old.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
  return true;
}

bool install(const std::wstring& folder) {
  const std::wstring library = folder + libraryName;
  if (isFile(library) && !isSoftToken(library)) return true;
  return removeFile(library) && CopyFileW((folder + L"\\SoftToken" + libraryName).c_str(), library.c_str(), TRUE) != 0;
}

void trimPath() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment", 0,
                    KEY_QUERY_VALUE | KEY_SET_VALUE, &key) != ERROR_SUCCESS)
    return;
  DWORD type = 0;
  DWORD size = 0;
  if (RegQueryValueExW(key, L"Path", nullptr, &type, nullptr, &size) == ERROR_SUCCESS) {
    std::wstring path(size / sizeof(wchar_t), L'\0');
    if (RegQueryValueExW(key, L"Path", nullptr, nullptr, reinterpret_cast<BYTE*>(path.data()), &size) ==
        ERROR_SUCCESS) {
      path.resize(std::wcslen(path.c_str()));
      const std::size_t end = path.find_last_not_of(L';') + 1;
      if (end > 0 && end < path.size()) {
        path.resize(end);
        RegSetValueExW(key, L"Path", 0, type, reinterpret_cast<const BYTE*>(path.c_str()),
                       static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
      }
    }
  }
  RegCloseKey(key);
}

bool remove(const std::wstring& folder) {
  trimPath();
  const std::wstring library = folder + libraryName;
  return !isSoftToken(library) || removeFile(library);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc != 3) return 2;
  const std::wstring_view action = argv[1];
  if (action == L"install") return install(argv[2]) ? 0 : 1;
  if (action == L"remove") return remove(argv[2]) ? 0 : 1;
  return 2;
}
