#include "log/log.h"

#include <cstdio>
#include <cstring>

#include "log/log_format.h"
#include "log/log_location.h"
#include "platform/platform.h"

namespace tavrin {
namespace {

std::string_view levelTag(int level) {
  switch (level) {
    case exceptionLevel:
      return exceptionTag;
    case errorLevel:
      return errorTag;
    case debugLevel:
      return debugTag;
    default:
      return otherTag;
  }
}

// Overwrites the `width` digits at `place` with the number.
void putNumber(char* place, int width, int number) {
  for (; width > 0; number /= 10) place[--width] = static_cast<char>('0' + number % 10);
}

void putHead(char* head, const platform::LocalTime& now, int level) {
  putNumber(head + LogPlace::day, 2, now.day);
  putNumber(head + LogPlace::month, 2, now.month);
  putNumber(head + LogPlace::hour, 2, now.hour);
  putNumber(head + LogPlace::minute, 2, now.minute);
  putNumber(head + LogPlace::second, 2, now.second);
  putNumber(head + LogPlace::millisecond, 3, now.millisecond);
  const std::string_view tag = levelTag(level);
  tag.copy(head + LogPlace::tag, tag.size());
}

struct ProcessName {
  ProcessName() {
    const std::string file = platform::programName();
    logProgramName(file).copy(text, sizeof text - 1);
  }
  char text[256] = {};
};

// The name of a program does not change. The text is never destroyed, because lines are written until the process ends.
std::string_view processName() noexcept {
  try {
    static const ProcessName name;
    return name.text;
  } catch (const std::exception& exception) {
    log_detail::reportException("Exception in getProcessName(): ", exception.what());
    return "TavrinKey Interface";
  }
}

}  // namespace

namespace log_detail {

std::string beginLine() {
  std::string line;
  line.reserve(160);  // most lines
  return line.append(logLineHead);
}

void writeLine(int level, std::string& line) {
  char baseFolder[logPathSize] = {};
  const bool found = platform::temporaryFolder(logFolderName, baseFolder, sizeof baseFolder);
  const platform::LocalTime now = platform::localTime();
  putHead(line.data(), now, level);
  line += '\n';
  if (found) {
    std::string path;
    path.reserve(256);
    path.append(baseFolder).append("/").append(logFolderName).append("/").append(processName()).append("/");
    path += logFileName(now);
    if (platform::appendToFile(path.c_str(), std::strlen(baseFolder), line)) return;
  }
  const bool isFolder = getLogBaseFolderPath(baseFolder);
  std::fputs(isFolder ? "\nUnable to write log" : "\nUnable to getLogBaseFolderPath", stdout);
}

void append(std::string& message, Hex hex) {
  static constexpr char digits[] = "0123456789ABCDEF";
  message.reserve(message.size() + 2 * hex.bytes.size());
  for (const std::uint8_t byte : hex.bytes) {
    message += digits[byte >> 4];
    message += digits[byte & 0xF];
  }
}

void reportException(const char* where, const char* what) noexcept { std::printf("%s%s\n", where, what); }

}  // namespace log_detail

int getLogLevel() noexcept {
  std::uint8_t data[32];
  const auto length = platform::readRegistryValue(registryKey, logLevelValue, data, sizeof data);
  if (!length) return errorLevel;
  // Only the first byte is used, for values of every type: administrators have set the level as a number and as text.
  const auto level = static_cast<std::int8_t>(*length > 0 ? data[0] : 0);
  return level <= debugLevel ? level : errorLevel;
}

std::string getProcessName() noexcept {
  try {
    return std::string(processName());
  } catch (const std::exception&) {
    return {};
  }
}

bool getLogBaseFolderPath(char* buffer) noexcept {
  try {
    return platform::temporaryFolder(logFolderName, buffer, logPathSize) && platform::isFolder(buffer);
  } catch (const std::exception& exception) {
    log_detail::reportException("Exception in getLogBaseFolderPath(): ", exception.what());
    return false;
  }
}

void writeLog(int level, std::string_view message) noexcept {
  try {
    std::string line = log_detail::beginLine();
    line += message;
    log_detail::writeLine(level, line);
  } catch (const std::exception& exception) {
    log_detail::reportException("Exception in write log : ", exception.what());
  }
}

}  // namespace tavrin
