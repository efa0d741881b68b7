// The diagnostic log: one plain-text file for each process name and day, below the user's temporary folder.
//
// Any thread may log. The level is read and the file opened for every line, so that a new level takes effect at once
// and other processes can share the file. Kept between lines are the program's name and, on POSIX, the number in the
// file of the level together with that file's status. Writers are not serialised: a line is one write. On POSIX reading
// the clock takes a lock, which is held during localtime_r only, and reading the level tries a lock without waiting for
// it.
//
// A failure to log never reaches the caller: it is reported on the standard output and the line is dropped.
#pragma once

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <span>
#include <string>
#include <string_view>

namespace tavrin {

inline constexpr int exceptionLevel = 1;
inline constexpr int errorLevel = 2;
inline constexpr int debugLevel = 3;

// The size of the buffer that getLogBaseFolderPath fills.
inline constexpr std::size_t logPathSize = 1024;

// The configured level: the registry value "logLevel", read anew at every call. errorLevel when the value is missing,
// unreadable or above debugLevel.
int getLogLevel() noexcept;

// The name of the running program, cut before its first point.
std::string getProcessName() noexcept;

// Fills a buffer of logPathSize characters with the temporary folder; false unless that is an existing folder.
bool getLogBaseFolderPath(char* buffer) noexcept;

// Writes one line at the given level without reading the configured level.
void writeLog(int level, std::string_view message) noexcept;

// Bytes that a message shows in upper-case hexadecimal, two digits a byte without separators.
struct Hex {
  std::span<const std::uint8_t> bytes;
};

namespace log_detail {

inline void append(std::string& message, std::string_view text) { message += text; }
void append(std::string& message, Hex hex);

template <std::integral Number>
void append(std::string& message, Number number) {
  char digits[24];
  message.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

void reportException(const char* where, const char* what) noexcept;

// A line that begins with space for its head. The message is appended to it. Both functions may throw std::bad_alloc.
std::string beginLine();

// Fills in the head of a line that beginLine made, ends the line and writes it.
void writeLine(int level, std::string& line);

template <typename... Parts>
void compose(int level, const Parts&... parts) noexcept {
  try {
    std::string line = beginLine();
    (append(line, parts), ...);
    writeLine(level, line);
  } catch (const std::exception& exception) {
    reportException("Exception in write log : ", exception.what());
  }
}

}  // namespace log_detail

// Writes an error or a debug line. It is composed of texts, integers (in decimal) and Hex bytes without separators.
// Nothing is composed when the configured level leaves the line out.
template <typename... Parts>
void logError(const Parts&... parts) noexcept {
  if (getLogLevel() >= errorLevel) log_detail::compose(errorLevel, parts...);
}

template <typename... Parts>
void logDebug(const Parts&... parts) noexcept {
  if (getLogLevel() >= debugLevel) log_detail::compose(debugLevel, parts...);
}

}  // namespace tavrin
