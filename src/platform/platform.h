// The access of the module to the operating system. Each platform has one implementation with the same functions in the
// same order: platform_windows.cpp and platform_posix.cpp. Texts are in the system's 8-bit encoding (UTF-8 on POSIX);
// all functions may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>

namespace tavrin::platform {

struct LocalTime {
  int year;
  int month;  // 1 to 12
  int day;
  int hour;
  int minute;
  int second;
  int millisecond;
};

// The separator between folders in paths that the system returns.
extern const char pathSeparator;

// The folders in which an installation may be, in the order in which they are tried.
extern const std::span<const char* const> installFolders;

// Reads a value of the machine-wide registry into `buffer` and returns the number of bytes, or nothing when the value
// is missing, unreadable or longer than the buffer. On POSIX the value is the decimal text in registryFile(), returned
// as a 32-bit number.
std::optional<std::size_t> readRegistryValue(const char* key, const char* name, std::uint8_t* buffer, std::size_t size);

// On POSIX the file that holds a registry value: $TAVRIN_REGISTRY/KEY/NAME (default root /etc/tavrin/registry, "/" for
// each "\" of the key). Empty on Windows.
std::string registryFile(const char* key, const char* name);

// Writes the folder for temporary files in which this user keeps the folder `name`, with a closing separator; false
// when there is none or it does not fit. On POSIX that is $TMPDIR unless the folder `name` in it belongs to another
// user, else /tmp/tavrin-UID, which is made when it is first written to.
bool temporaryFolder(const char* name, char* buffer, std::size_t size);

bool isFolder(const char* path);

// Appends the text with one write, so that lines of several threads and processes are never mixed. The first
// `baseLength` characters of the path name an existing folder; the folders after it are separated by "/", and they and
// the file are created when they are missing. False when the file cannot be opened; a write that fails is not reported.
// On POSIX the folders after the first one and the file are private to this user: they are created so, and refused when
// they belong to another user, are links or anything else than folders and a regular file with one name.
bool appendToFile(const char* path, std::size_t baseLength, std::string_view text);

// The size in bytes of a file to which appendToFile would append. Nothing when there is no such file or it is refused.
std::optional<std::uint64_t> sizeOfFile(const char* path, std::size_t baseLength);

// Cuts such a file, in a folder after the first one, to its first `size` bytes. With 0 the file is removed, and its
// folder too unless something else is in it. A file that appendToFile refuses is left alone. A failure is not reported.
void cutFile(const char* path, std::size_t baseLength, std::uint64_t size);

// The file of the running program: with its folders, and its name only. Empty when the system does not report it.
std::string programPath();
std::string programName();

// The variable's value. Empty when it is not set, and on POSIX in a program that runs with other rights than its
// caller's (set-user-ID), where the environment is not trusted.
std::string environmentVariable(const char* name);

LocalTime localTime();

// Starts a thread. On POSIX the thread receives none of the signals that the application handles or waits for. Throws
// std::system_error when there can be no thread.
std::thread startThread(void (*run)());

// Defers cancellation of the calling thread (pthread_cancel) while this object exists: unwinding by a cancellation must
// not cross a frame that stops exceptions. Does nothing on Windows.
class CancellationDeferral {
 public:
  CancellationDeferral() noexcept;
  ~CancellationDeferral();
  CancellationDeferral(const CancellationDeferral&) = delete;
  CancellationDeferral& operator=(const CancellationDeferral&) = delete;

 private:
  int previous_ = 0;
};

void sleepMilliseconds(unsigned milliseconds);

// Overwrites memory with zeros in a way that the compiler does not drop.
void wipe(void* memory, std::size_t size);

// Returns a pin that keeps this module loaded until it is released, even if the application unloads it. A running
// thread of the module needs one. Null when the module cannot be pinned; releaseModule accepts null. Does not wait.
void* pinModule();
void releaseModule(void* pin);

// Calls `handler` once for each registration when the process exits while threads of the module still run. On Windows
// it is never called: the system has ended all other threads before it notifies a library.
void atProcessExit(void (*handler)());

// Calls the three handlers around every fork of the process, as pthread_atfork does, and keeps other threads out of
// localTime() during the fork, whose lock the child would otherwise find taken. Does nothing where there is no fork.
void aroundFork(void (*prepare)(), void (*parent)(), void (*child)());

}  // namespace tavrin::platform
