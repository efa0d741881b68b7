// Everything that the module asks of the operating system. One implementation a platform, with the same functions in
// the same order: platform_windows.cpp and platform_posix.cpp. Texts are in the system's 8-bit encoding (UTF-8 on
// POSIX); all functions may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace platform {

struct LocalTime {
  int year;
  int month;  // 1 to 12
  int day;
  int hour;
  int minute;
  int second;
  int millisecond;
};

// Between folders in the paths that the system itself reports.
extern const char pathSeparator;

// Reads a value of the machine-wide registry into `buffer` and returns the number of bytes, or nothing when the value
// is missing, unreadable or longer than the buffer. On POSIX the value is the file $TAVRIN_REGISTRY/KEY/NAME (default
// root /etc/tavrin/registry, "/" for the "\" of the key), a decimal text that stands for a 32-bit value.
std::optional<std::size_t> readRegistryValue(const char* key, const char* name, std::uint8_t* buffer, std::size_t size);

// Writes the folder for temporary files, with its closing separator; false when there is none or it does not fit.
bool temporaryFolder(char* buffer, std::size_t size);

bool isFolder(const char* path);

// An existing folder is no error; neither is any other failure, which the next use of the folder meets again.
void createFolder(const char* path);

// Appends the text with one write, so that lines of several threads and processes never tear each other. False when
// the file cannot be opened; a write that fails goes unnoticed.
bool appendToFile(const char* path, std::string_view text);

// The file of the running program: with its folders, and its name alone. Empty when the system does not tell.
std::string programPath();
std::string programName();

// The variable's value, or an empty text when it is not set.
std::string environmentVariable(const char* name);

LocalTime localTime();

void sleepMilliseconds(unsigned milliseconds);

// Overwrites memory with zeros in a way that the compiler does not drop.
void wipe(void* memory, std::size_t size);

// Keeps this module loaded, whatever the application unloads, until the pin is released: for as long as a thread of
// ours runs its code. Never waits for anything. A pin may be null (nothing to hold); releasing null does nothing.
void* pinModule();
void releaseModule(void* pin);

// Calls `handler` when the process ends in an orderly way with threads of ours still alive; once a registration. On
// Windows it is never called: the system has ended all other threads before it tells a library of the end.
void atProcessExit(void (*handler)());

// Calls the three handlers around every fork of the process, as pthread_atfork does; does nothing where there is no
// fork.
void aroundFork(void (*prepare)(), void (*parent)(), void (*child)());

}  // namespace platform
