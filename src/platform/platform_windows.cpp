#include <windows.h>
// psapi.h needs the types of windows.h.
#include <psapi.h>

#include "platform/condition.h"
#include "platform/platform.h"

namespace tavrin::platform {

namespace {

// The text of one path, of at most 32767 characters, that a system call writes and whose length it returns.
template <typename Query>
std::string systemText(Query query) {
  std::string text(MAX_PATH, '\0');
  for (;;) {
    const DWORD length = query(text.data(), static_cast<DWORD>(text.size()));
    if (length < text.size()) {
      text.resize(length);
      return text;
    }
    if (text.size() > 32767) return {};
    text.resize(2 * text.size());
  }
}

HANDLE openFile(const char* path, DWORD access, DWORD disposition) {
  return CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                     nullptr);
}

// Creates the folders of the path after its base. An existing folder is no error. After any other failure, opening the
// file fails too.
void createFolders(const std::string& path, std::size_t baseLength) {
  for (auto end = path.find('/', baseLength + 1); end != std::string::npos; end = path.find('/', end + 1)) {
    CreateDirectoryA(path.substr(0, end).c_str(), nullptr);
  }
}

}  // namespace

const char pathSeparator = '\\';

static constexpr const char* knownFolders[] = {"C:/Program Files (x86)/Quorvane Telemantix/Tavrin",
                                               "C:/Program Files/Quorvane Telemantix/Tavrin"};
constinit const std::span<const char* const> installFolders = knownFolders;

std::optional<std::size_t> readRegistryValue(const char* key, const char* name, std::uint8_t* buffer,
                                             std::size_t size) {
  auto length = static_cast<DWORD>(size);
  if (RegGetValueA(HKEY_LOCAL_MACHINE, key, name, RRF_RT_ANY, nullptr, buffer, &length) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  return length;
}

std::string registryFile(const char*, const char*) { return {}; }

bool temporaryFolder(const char*, char* buffer, std::size_t size) {
  const DWORD length = GetTempPathA(static_cast<DWORD>(size), buffer);
  return length > 0 && length < size;
}

bool isFolder(const char* path) {
  const DWORD attributes = GetFileAttributesA(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool appendToFile(const char* path, std::size_t baseLength, std::string_view text) {
  HANDLE file = openFile(path, FILE_APPEND_DATA, OPEN_ALWAYS);
  if (file == INVALID_HANDLE_VALUE) {
    // Folders are created only now: looking for them before every line would double its cost.
    createFolders(path, baseLength);
    file = openFile(path, FILE_APPEND_DATA, OPEN_ALWAYS);
  }
  if (file == INVALID_HANDLE_VALUE) return false;
  DWORD written = 0;
  WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  CloseHandle(file);
  return true;
}

std::optional<std::uint64_t> sizeOfFile(const char* path, std::size_t) {
  HANDLE file = openFile(path, FILE_READ_ATTRIBUTES, OPEN_EXISTING);
  if (file == INVALID_HANDLE_VALUE) return std::nullopt;
  LARGE_INTEGER size{};
  const bool known = GetFileSizeEx(file, &size) != 0;
  CloseHandle(file);
  return known ? std::optional(static_cast<std::uint64_t>(size.QuadPart)) : std::nullopt;
}

void cutFile(const char* path, std::size_t, std::uint64_t size) {
  if (size == 0) {
    const std::string_view whole(path);
    if (DeleteFileA(path)) RemoveDirectoryA(std::string(whole.substr(0, whole.rfind('/'))).c_str());
    return;
  }
  HANDLE file = openFile(path, GENERIC_WRITE, OPEN_EXISTING);
  if (file == INVALID_HANDLE_VALUE) return;
  LARGE_INTEGER end{};
  end.QuadPart = static_cast<LONGLONG>(size);
  if (SetFilePointerEx(file, end, nullptr, FILE_BEGIN)) SetEndOfFile(file);
  CloseHandle(file);
}

std::string programPath() {
  return systemText([](char* buffer, DWORD size) { return GetModuleFileNameA(nullptr, buffer, size); });
}

std::string programName() {
  char name[MAX_PATH];
  const DWORD length = K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, name, sizeof name);
  return std::string(name, length);
}

std::string environmentVariable(const char* name) {
  return systemText([name](char* buffer, DWORD size) { return GetEnvironmentVariableA(name, buffer, size); });
}

LocalTime localTime() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  return {now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
}

std::thread startThread(void (*run)()) { return std::thread(run); }

CancellationDeferral::CancellationDeferral() noexcept = default;
CancellationDeferral::~CancellationDeferral() = default;

void Mutex::lock() { AcquireSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&lock_)); }
void Mutex::unlock() { ReleaseSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&lock_)); }

void Condition::notify_all() { WakeAllConditionVariable(reinterpret_cast<PCONDITION_VARIABLE>(&variable_)); }
void Condition::sleep(Mutex& mutex) {
  SleepConditionVariableSRW(reinterpret_cast<PCONDITION_VARIABLE>(&variable_), reinterpret_cast<PSRWLOCK>(&mutex.lock_),
                            INFINITE, 0);
}

void sleepMilliseconds(unsigned milliseconds) { Sleep(milliseconds); }

void wipe(void* memory, std::size_t size) { SecureZeroMemory(memory, size); }

void* pinModule() {
  HMODULE module = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, &pathSeparator, &module);
  return module;
}

void releaseModule(void* pin) {
  if (pin != nullptr) FreeLibrary(static_cast<HMODULE>(pin));
}

void atProcessExit(void (*)()) {}

void aroundFork(void (*)(), void (*)(), void (*)()) {}

}  // namespace tavrin::platform
