#include "log/log.h"

#include <cstdio>

#include "log/utils.h"
#include "platform/platform.h"

namespace {

const char* levelTag(int level) {
  switch (level) {
    case exceptionLevel:
      return "EXCEP ::=>";
    case errorLevel:
      return "ERROR ::=>";
    case debugLevel:
      return "DEBUG ::=>";
    default:
      return "INFO  ::=>";
  }
}

// Makes every folder along the path. Only "/" separates levels: what the system reports is there already.
void createFolders(const std::string& path) {
  for (auto end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
    platform::createFolder(path.substr(0, end).c_str());
  }
  platform::createFolder(path.c_str());
}

std::string formatLine(const platform::LocalTime& now, int level, std::string_view message) {
  char time[64];
  std::snprintf(time, sizeof time, "%02d/%02d::%02d:%02d:%02d:%03d-> ", now.day, now.month, now.hour, now.minute,
                now.second, now.millisecond);
  std::string line(time);
  return line.append("->").append(levelTag(level)).append(message).append("\n");
}

struct ProcessName {
  ProcessName() {
    const std::string name = utils.split(platform::programName(), ".").front();
    name.copy(text, sizeof text - 1);
  }
  char text[256] = {};
};

// Where a line of this moment belongs.
struct LogFile {
  std::string folder;  // with its closing separator
  std::string path;
};

LogFile logFile(const char* baseFolder, const platform::LocalTime& now) {
  LogFile file;
  file.folder = std::string(baseFolder) + "/Quorvane Telemantix/" + getProcessName() + "/";
  char name[32];
  std::snprintf(name, sizeof name, "%04d-%02d-%02d.LOG", now.year, now.month, now.day);
  file.path = file.folder + name;
  return file;
}

// The folders are looked at only when the file cannot be opened: that is at the first line of a program, and doing so
// for each line would double its cost.
void appendLine(int level, std::string_view message) {
  char baseFolder[logPathSize];
  const bool found = platform::temporaryFolder(baseFolder, sizeof baseFolder);
  const platform::LocalTime now = platform::localTime();
  const LogFile file = logFile(found ? baseFolder : "", now);
  const std::string line = formatLine(now, level, message);
  if (found && platform::appendToFile(file.path.c_str(), line)) return;
  if (!getLogBaseFolderPath(baseFolder)) {
    std::fputs("\nUnable to getLogBaseFolderPath", stdout);
    return;
  }
  createFolders(file.folder);
  if (!platform::appendToFile(file.path.c_str(), line)) std::fputs("\nUnable to write log", stdout);
}

}  // namespace

namespace log_detail {

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
  const auto length =
      platform::readRegistryValue("Software\\Quorvane Telemantix\\Tavrin", "logLevel", data, sizeof data);
  if (!length) return errorLevel;
  // Only the first byte counts, whatever the value's type: administrators have set the level as a number and as text.
  const auto level = static_cast<std::int8_t>(*length > 0 ? data[0] : 0);
  return level <= debugLevel ? level : errorLevel;
}

std::string getProcessName() noexcept {
  try {
    // A program keeps its name. The text needs no destructor, since lines are written until the process is gone.
    static const ProcessName name;
    return name.text;
  } catch (const std::exception& exception) {
    log_detail::reportException("Exception in getProcessName(): ", exception.what());
  }
  try {
    return "TavrinKey Interface";
  } catch (const std::exception&) {
    return {};
  }
}

bool getLogBaseFolderPath(char* buffer) noexcept {
  try {
    return platform::temporaryFolder(buffer, logPathSize) && platform::isFolder(buffer);
  } catch (const std::exception& exception) {
    log_detail::reportException("Exception in getLogBaseFolderPath(): ", exception.what());
    return false;
  }
}

void writeLog(int level, std::string_view message) noexcept {
  try {
    appendLine(level, message);
  } catch (const std::exception& exception) {
    log_detail::reportException("Exception in write log : ", exception.what());
  }
}
