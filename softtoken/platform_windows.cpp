#include <windows.h>
// After windows.h, whose types it uses.
#include <bcrypt.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "softtoken/failure.h"
#include "softtoken/platform.h"

namespace softtoken {
namespace {

namespace fs = std::filesystem;

// While another process reads or scans a file, it cannot be replaced; while another replaces it, it cannot be opened.
bool isPassing(DWORD error) { return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION; }

constexpr int replaceAttempts = 200;
constexpr int openAttempts = 10;
constexpr std::chrono::milliseconds retryPause{10};
constexpr std::chrono::milliseconds lockPause{1};

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

[[noreturn]] void fail(const char* action, const fs::path& path) {
  const DWORD error = ::GetLastError();
  const Status status =
      error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL ? Status::full : Status::deviceFault;
  throw Failure(status, std::string(action) + " " + textOf(path) + ": " +
                            std::system_category().message(static_cast<int>(error)));
}

class Handle {
 public:
  Handle(const fs::path& path, DWORD access, DWORD disposition) : handle_(INVALID_HANDLE_VALUE) {
    for (int attempt = 0; attempt < openAttempts; ++attempt) {
      handle_ = ::CreateFileW(path.c_str(), access, shareAll, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
      if (handle_ != INVALID_HANDLE_VALUE || !isPassing(::GetLastError())) return;
      std::this_thread::sleep_for(retryPause);
    }
  }
  ~Handle() {
    if (handle_ != INVALID_HANDLE_VALUE) ::CloseHandle(handle_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  explicit operator bool() const { return handle_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return handle_; }
  HANDLE release() { return std::exchange(handle_, INVALID_HANDLE_VALUE); }

 private:
  HANDLE handle_;
};

std::int64_t timeOf(const FILETIME& time) {
  return static_cast<std::int64_t>((static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime);
}

// Later than the time of the old content, even if the clock has not advanced or was set back.
FILETIME timeForNext(const fs::path& file) {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  const std::optional<FileStamp> old = stampOf(file);
  if (!old || old->time < timeOf(now)) return now;
  const auto next = static_cast<std::uint64_t>(old->time + 1);
  return {static_cast<DWORD>(next), static_cast<DWORD>(next >> 32)};
}

template <class Transfer, class Content>
bool transferAll(Transfer transfer, HANDLE handle, Content content) {
  while (!content.empty()) {
    constexpr std::size_t maxTransfer = 1u << 30;
    const auto size = static_cast<DWORD>(std::min(content.size(), maxTransfer));
    DWORD done = 0;
    if (!transfer(handle, content.data(), size, &done, nullptr) || done == 0) return false;
    content = content.subspan(done);
  }
  return true;
}

bool moveWithRetries(const fs::path& from, const fs::path& to, DWORD flags) {
  for (int attempt = 0; attempt < replaceAttempts; ++attempt) {
    if (::MoveFileExW(from.c_str(), to.c_str(), flags | MOVEFILE_WRITE_THROUGH)) return true;
    const DWORD error = ::GetLastError();
    if (!isPassing(error)) return false;
    std::this_thread::sleep_for(retryPause);
    ::SetLastError(error);
  }
  return false;
}

std::wstring variable(const wchar_t* name) {
  std::wstring value(::GetEnvironmentVariableW(name, nullptr, 0), L'\0');
  value.resize(::GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
  return value;
}

}  // namespace

void wipe(void* block, std::size_t size) noexcept {
  if (size > 0) ::SecureZeroMemory(block, size);
}

std::size_t blockSize(void* block) noexcept { return ::_msize(block); }

void fillRandom(std::span<std::uint8_t> out) {
  while (!out.empty()) {
    constexpr std::size_t maxCount = 1u << 30;
    const auto count = static_cast<ULONG>(std::min(out.size(), maxCount));
    if (::BCryptGenRandom(nullptr, out.data(), count, BCRYPT_USE_SYSTEM_PREFERRED_RNG) != 0)
      throw Failure(Status::deviceFault, "the system gives no random numbers");
    out = out.subspan(count);
  }
}

std::optional<FileStamp> stampOf(const fs::path& file) {
  WIN32_FILE_ATTRIBUTE_DATA info{};
  if (!::GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &info)) return std::nullopt;
  if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return std::nullopt;
  const std::uint64_t size = (static_cast<std::uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
  return FileStamp{timeOf(info.ftLastWriteTime), size, static_cast<std::uint64_t>(timeOf(info.ftCreationTime))};
}

std::optional<std::vector<std::uint8_t>> readFile(const fs::path& file, std::size_t limit) {
  const Handle opened(file, GENERIC_READ, OPEN_EXISTING);
  LARGE_INTEGER size{};
  if (!opened || ::GetFileType(opened.get()) != FILE_TYPE_DISK || !::GetFileSizeEx(opened.get(), &size))
    return std::nullopt;
  if (static_cast<std::uint64_t>(size.QuadPart) > limit) return std::nullopt;
  std::vector<std::uint8_t> content(static_cast<std::size_t>(size.QuadPart));
  if (!transferAll(::ReadFile, opened.get(), std::span(content))) return std::nullopt;
  return content;
}

void writeFile(const fs::path& file, ByteView content) {
  DWORD error = ERROR_SUCCESS;
  {
    const Handle out(file, GENERIC_WRITE, CREATE_ALWAYS);
    if (!out) fail("cannot make", file);
    if (transferAll(::WriteFile, out.get(), content) && ::FlushFileBuffers(out.get())) return;
    error = ::GetLastError();
  }
  ::DeleteFileW(file.c_str());
  ::SetLastError(error);
  fail("cannot write", file);
}

void putInPlace(const fs::path& fresh, const fs::path& file) {
  const FILETIME time = timeForNext(file);
  {
    const Handle opened(fresh, FILE_WRITE_ATTRIBUTES, OPEN_EXISTING);
    if (!opened || !::SetFileTime(opened.get(), nullptr, nullptr, &time)) fail("cannot replace", file);
  }
  if (!moveWithRetries(fresh, file, MOVEFILE_REPLACE_EXISTING)) fail("cannot replace", file);
}

void moveEntry(const fs::path& from, const fs::path& to) {
  if (!moveWithRetries(from, to, 0)) fail("cannot move", from);
}

void makePrivateFolder(const fs::path& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw Failure(Status::deviceFault, "cannot make " + textOf(folder) + ": " + error.message());
}

// LockFileEx() has no time limit, so the lock is polled.
FileLock::FileLock(const fs::path& file, std::chrono::milliseconds wait) {
  Handle opened(file, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
  if (!opened) fail("cannot open", file);
  const auto end = std::chrono::steady_clock::now() + wait;
  OVERLAPPED start{};
  while (!::LockFileEx(opened.get(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &start)) {
    const DWORD error = ::GetLastError();
    const bool held = error == ERROR_LOCK_VIOLATION || error == ERROR_IO_PENDING;
    if (!held || std::chrono::steady_clock::now() >= end) fail("cannot lock", file);
    std::this_thread::sleep_for(lockPause);
  }
  handle_ = reinterpret_cast<std::intptr_t>(opened.release());
}

FileLock::~FileLock() {
  // Windows does not say when it releases the lock of a closed handle.
  const auto handle = reinterpret_cast<HANDLE>(handle_);  // NOLINT(performance-no-int-to-ptr)
  OVERLAPPED start{};
  ::UnlockFileEx(handle, 0, 1, 0, &start);
  ::CloseHandle(handle);
}

fs::path tokenRoot() {
  if (fs::path root = variable(L"TAVRIN_SOFT_TOKENS"); !root.empty()) return root;
  const fs::path data = variable(L"LOCALAPPDATA");
  if (!data.is_absolute())
    throw Failure(Status::deviceFault, "no folder for tokens: set TAVRIN_SOFT_TOKENS or LOCALAPPDATA");
  return data / "Quorvane Telemantix" / "Tavrin" / "SoftTokens";
}

OperationGate::OperationGate() = default;

OperationGate::~OperationGate() = default;

void keepLoaded(void (*)()) {
  HMODULE self = nullptr;
  ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&keepLoaded), &self);
}

}  // namespace softtoken
