// What the software token needs from the operating system. platform_posix.cpp and platform_windows.cpp hold the same
// functions in the same order. All of them may be called from any thread. A failure is thrown as Failure: Status::full
// when the disk is full, else Status::deviceFault.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "devlib/byte_view.h"

namespace softtoken {

using tavrin::ByteView;

// Overwrites memory; the compiler does not remove the call.
void wipe(void* block, std::size_t size) noexcept;

// The usable bytes of a block from malloc(), at least as many as were requested.
std::size_t blockSize(void* block) noexcept;

// Fills the buffer from the system's random number generator.
void fillRandom(std::span<std::uint8_t> out);

// Distinguishes the contents that one file has had over time.
struct FileStamp {
  std::int64_t time = 0;
  std::uint64_t size = 0;
  std::uint64_t identity = 0;
  bool operator==(const FileStamp&) const = default;
};

// Empty when there is no such file.
std::optional<FileStamp> stampOf(const std::filesystem::path& file);

// The whole file; empty when it is absent, unreadable, not a regular file or longer than `limit` bytes.
std::optional<std::vector<std::uint8_t>> readFile(const std::filesystem::path& file, std::size_t limit);

// Writes a file that no process reads yet and syncs its content to the disk. Overwrites an existing file. On failure
// the file is removed.
void writeFile(const std::filesystem::path& file, ByteView content);

// Renames `fresh` to `file`, which it replaces atomically, gives it a stamp that `file` has not had, and syncs the
// folder. A reader, or a process started after a crash, sees either the old or the new content. Needs no free disk
// space. For one writer at a time. On failure `fresh` stays.
void putInPlace(const std::filesystem::path& fresh, const std::filesystem::path& file);

// Renames a file or folder and syncs the folders. Throws when `to` exists.
void moveEntry(const std::filesystem::path& from, const std::filesystem::path& to);

// Makes a folder and those above it that are missing, and syncs the folder above each new one. On POSIX systems new
// folders have mode 0700; on Windows they inherit the access rights of the folder above. An existing folder keeps its
// access rights.
void makePrivateFolder(const std::filesystem::path& folder);

// An exclusive lock on a file, held by one FileLock of all processes at a time. The system releases it when the process
// ends. The file is created if it is missing, and is not removed.
class FileLock {
 public:
  static constexpr std::chrono::milliseconds longestWait{30'000};

  // Waits for the lock. Throws deviceFault when another holder keeps it for longer than `wait`.
  explicit FileLock(const std::filesystem::path& file, std::chrono::milliseconds wait = longestWait);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  std::intptr_t handle_;
};

// The folder of the connected tokens: $TAVRIN_SOFT_TOKENS, else a folder below the user's application data
// (%LOCALAPPDATA%; $XDG_DATA_HOME or $HOME/.local/share). Throws when none of the variables is set. The values of
// $XDG_DATA_HOME and $HOME count only if they are absolute paths. Programs with the set-user-ID bit use no variable.
std::filesystem::path tokenRoot();

// Held while an operation runs, at most once by a thread. fork() waits until no thread holds one, so that the child
// finds no lock held and no data half changed.
class OperationGate {
 public:
  OperationGate();
  ~OperationGate();
  OperationGate(const OperationGate&) = delete;
  OperationGate& operator=(const OperationGate&) = delete;
};

// Call once. Keeps this library's code in memory until the process ends, because other libraries call its hooks. Calls
// `inChild` in the child of every fork.
void keepLoaded(void (*inChild)());

// Texts of paths are UTF-8.
inline std::filesystem::path pathOf(std::string_view utf8) {
  return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

inline std::string textOf(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

// The name of a folder's entry. Empty for a name that is no UTF-16 on Windows, which has no text.
inline std::string nameOf(const std::filesystem::directory_entry& entry) try {
  return textOf(entry.path().filename());
} catch (const std::system_error&) {
  return {};
}

}  // namespace softtoken
