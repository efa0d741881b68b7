// The form of the log's lines, for the module that writes them and for tavrin-tool, which reads them. Any thread may
// use it.
#pragma once

#include <cstddef>
#include <string_view>

namespace tavrin {

// The head of every line: DD/MM::HH:MM:SS:mmm and the tag of the level. The message follows.
inline constexpr std::string_view logLineHead = "00/00::00:00:00:000-> ->INFO  ::=>";

// Where the numbers and the tag begin in the head. The time ends where its text does.
struct LogPlace {
  static constexpr std::size_t day = 0;
  static constexpr std::size_t month = 3;
  static constexpr std::size_t hour = 7;
  static constexpr std::size_t minute = 10;
  static constexpr std::size_t second = 13;
  static constexpr std::size_t millisecond = 16;
  static constexpr std::size_t timeEnd = 19;
  static constexpr std::size_t tag = 24;
};

// The tags. All have the same length.
inline constexpr std::string_view exceptionTag = "EXCEP";
inline constexpr std::string_view errorTag = "ERROR";
inline constexpr std::string_view debugTag = "DEBUG";
inline constexpr std::string_view otherTag = "INFO ";

// Between a tag and the message.
inline constexpr std::string_view logMessageMark = logLineHead.substr(LogPlace::tag + otherTag.size() + 1);

// The name by which the log knows a program: that of its file up to the first point.
constexpr std::string_view logProgramName(std::string_view fileName) { return fileName.substr(0, fileName.find('.')); }

}  // namespace tavrin
