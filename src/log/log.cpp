#include "log/log.h"

#include <cstdio>

#include "log/utils.h"
#include "platform/platform.h"

namespace {

// What stands before the message; all tags have the same length.
constexpr char lineHead[] = "00/00::00:00:00:000-> ->INFO  ::=>";
constexpr std::size_t tagPlace = 24;

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

// Overwrites the digits that stand at `place`, `width` of them, with the number.
void putNumber(char* place, int width, int number) {
  for (; width > 0; number /= 10) place[--width] = static_cast<char>('0' + number % 10);
}

void putHead(char* head, const platform::LocalTime& now, int level) {
  putNumber(head, 2, now.day);
  putNumber(head + 3, 2, now.month);
  putNumber(head + 7, 2, now.hour);
  putNumber(head + 10, 2, now.minute);
  putNumber(head + 13, 2, now.second);
  putNumber(head + 16, 3, now.millisecond);
  const std::string_view tag = levelTag(level);
  tag.copy(head + tagPlace, tag.size());
}

struct ProcessName {
  ProcessName() {
    const std::string name = utils.split(platform::programName(), ".").front();
    name.copy(text, sizeof text - 1);
  }
  char text[256] = {};
};

// A program keeps its name. The text needs no destructor, since lines are written until the process is gone.
std::string_view processName() noexcept {
  try {
    static const ProcessName name;
    return name.text;
  } catch (const std::exception& exception) {
    log_detail::reportException("Exception in getProcessName(): ", exception.what());
    return "TavrinKey Interface";
  }
}

// Where the lines of this program belong, with the closing separator.
std::string logFolder(std::string_view baseFolder) {
  std::string folder;
  folder.reserve(logPathSize);
  return folder.append(baseFolder).append("/Quorvane Telemantix/").append(processName()).append("/");
}

void appendFileName(std::string& path, const platform::LocalTime& today) {
  char name[] = "0000-00-00.LOG";
  putNumber(name, 4, today.year);
  putNumber(name + 5, 2, today.month);
  putNumber(name + 8, 2, today.day);
  path += name;
}

}  // namespace

namespace log_detail {

std::string beginLine() {
  std::string line;
  line.reserve(160);  // most lines
  return line.append(lineHead, sizeof lineHead - 1);
}

// The folders are looked at only when the file cannot be opened: that is at the first line of a program, and doing so
// for each line would double its cost.
void writeLine(int level, std::string& line) {
  char baseFolder[logPathSize];
  const bool found = platform::temporaryFolder(baseFolder, sizeof baseFolder);
  const platform::LocalTime now = platform::localTime();
  std::string path = logFolder(found ? baseFolder : "");
  const std::size_t folderLength = path.size();
  appendFileName(path, now);
  putHead(line.data(), now, level);
  line += '\n';
  if (found && platform::appendToFile(path.c_str(), line)) return;
  if (!getLogBaseFolderPath(baseFolder)) {
    std::fputs("\nUnable to getLogBaseFolderPath", stdout);
    return;
  }
  createFolders(path.substr(0, folderLength));
  if (!platform::appendToFile(path.c_str(), line)) std::fputs("\nUnable to write log", stdout);
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
  const auto length =
      platform::readRegistryValue("Software\\Quorvane Telemantix\\Tavrin", "logLevel", data, sizeof data);
  if (!length) return errorLevel;
  // Only the first byte counts, whatever the value's type: administrators have set the level as a number and as text.
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
    return platform::temporaryFolder(buffer, logPathSize) && platform::isFolder(buffer);
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
