// What the software token needs of the operating system. platform_posix.cpp and platform_windows.cpp hold the same
// functions in the same order. Failures are thrown as Failure with Status::deviceFault, or Status::full when the disk
// is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace softtoken {

// Overwrites memory in a way that no compiler leaves out.
void wipe(void* block, std::size_t size) noexcept;

// The bytes usable in a block of malloc(), at least as many as were asked for.
std::size_t blockSize(void* block) noexcept;

// Tells the contents that one file has had apart.
struct FileStamp {
  std::int64_t time = 0;
  std::uint64_t size = 0;
  std::uint64_t identity = 0;
  bool operator==(const FileStamp&) const = default;
};

// Nothing when there is no such file.
std::optional<FileStamp> stampOf(const std::filesystem::path& file);

// The whole file; nothing when it is absent, unreadable, no regular file or longer than `limit` bytes.
std::optional<std::vector<std::uint8_t>> readFile(const std::filesystem::path& file, std::size_t limit);

// Puts new content in the place of the old, durably and at once: whoever reads, and whatever is killed, sees the one or
// the other. The stamp is a new one. For one writer at a time: the content passes through a file named <file>.new, and
// one that a killed writer left behind there is overwritten.
void replaceFile(const std::filesystem::path& file, std::span<const std::uint8_t> content);

// Renames a file or folder, durably, to a name that is not taken.
void moveEntry(const std::filesystem::path& from, const std::filesystem::path& to);

// Makes a folder, and those above it, that only this user can enter.
void makePrivateFolder(const std::filesystem::path& folder);

// Held by one thread of all processes at a time; the file is made when it is missing.
class FileLock {
 public:
  explicit FileLock(const std::filesystem::path& file);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  std::intptr_t handle_;
};

// The folder of the connected tokens: $TAVRIN_SOFT_TOKENS, else the user's own place for application data.
std::filesystem::path tokenRoot();

// Held while an operation runs, never twice by one thread: a fork waits until none does, so that the child finds no
// lock held and nothing half changed.
class OperationGate {
 public:
  OperationGate();
  ~OperationGate();
  OperationGate(const OperationGate&) = delete;
  OperationGate& operator=(const OperationGate&) = delete;
};

// To be called once. Keeps this library's code in memory until the process ends, for the hooks that it has handed out,
// and has `inChild` called in the child of every fork.
void keepLoaded(void (*inChild)());

// Paths are UTF-8 wherever they are text.
inline std::filesystem::path pathOf(std::string_view utf8) {
  return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

inline std::string textOf(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

}  // namespace softtoken
