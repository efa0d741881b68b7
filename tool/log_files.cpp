#include "tool/log_files.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "log/log_location.h"
#include "platform/platform.h"
#include "softtoken/platform.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

// DD/MM::HH:MM:SS:mmm, with which every message begins.
constexpr std::string_view timePattern = "00/00::00:00:00:000-> ";
constexpr std::size_t timeLength = 19;

bool startsMessage(std::string_view line) {
  return line.size() >= timePattern.size() &&
         std::ranges::equal(line.substr(0, timePattern.size()), timePattern, [](char letter, char expected) {
           return expected == '0' ? letter >= '0' && letter <= '9' : letter == expected;
         });
}

LineKind kindOf(std::string_view line) {
  const std::string_view tag = line.substr(timePattern.size());
  if (tag.starts_with("->ERROR") || tag.starts_with("->EXCEP")) return LineKind::error;
  return tag.starts_with("->DEBUG") ? LineKind::debug : LineKind::other;
}

struct TimedEntry {
  std::string time;  // of the day, so that texts compare as times do
  LogEntry entry;
};

// Whole lines behind the position, which moves past them. A file that was replaced by a shorter one is read anew.
std::vector<std::string> newLines(const LogFile& file, std::streamoff& position) {
  std::ifstream stream(file.path, std::ios::binary | std::ios::ate);
  if (!stream) return {};
  if (position > stream.tellg()) position = 0;
  stream.seekg(position);
  std::string content(std::istreambuf_iterator<char>(stream), {});
  content.resize(content.rfind('\n') + 1);
  position += static_cast<std::streamoff>(content.size());
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < content.size();) {
    const std::size_t end = content.find('\n', at);
    lines.push_back(content.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

void appendEntries(const LogFile& file, const std::vector<std::string>& lines, std::vector<TimedEntry>& entries) {
  std::string time;
  LineKind kind = LineKind::other;
  for (const std::string& line : lines) {
    if (startsMessage(line)) {
      time = line.substr(0, timeLength);
      kind = kindOf(line);
    }
    entries.push_back({time, {file.program, line, kind}});
  }
}

}  // namespace

fs::path logFolder() { return fs::path(tavrin::logFolder()).lexically_normal(); }

std::string today() { return tavrin::logFileName(platform::localTime()).substr(0, 10); }

std::vector<LogFile> logFilesOf(const std::string& day) {
  std::vector<LogFile> files;
  std::error_code error;
  for (fs::directory_iterator entry(logFolder(), error), end; !error && entry != end; entry.increment(error)) {
    const fs::path file = entry->path() / (day + ".LOG");
    std::error_code missing;
    const std::uintmax_t size = fs::file_size(file, missing);
    if (!missing) files.push_back({softtoken::textOf(entry->path().filename()), file, size});
  }
  std::ranges::sort(files, {}, &LogFile::program);
  return files;
}

std::vector<LogEntry> LogReader::newEntries(const std::vector<LogFile>& files) {
  std::vector<TimedEntry> timed;
  for (const LogFile& file : files) appendEntries(file, newLines(file, positions_[file.path]), timed);
  std::ranges::stable_sort(timed, {}, &TimedEntry::time);
  std::vector<LogEntry> entries;
  entries.reserve(timed.size());
  for (TimedEntry& entry : timed) entries.push_back(std::move(entry.entry));
  return entries;
}

}  // namespace tool
