// The module's log files: one for each program and day, below the temporary folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tool {

struct LogFile {
  std::string program;  // the name of its folder
  std::filesystem::path path;
  std::uintmax_t size;  // bytes
};

// The folder that holds a folder for each program; it may not exist yet.
std::filesystem::path logFolder();

// In local time, YYYY-MM-DD.
std::string today();

// The files of a day, by program.
std::vector<LogFile> logFilesOf(const std::string& day);

enum class LineKind { debug, error, other };

struct LogEntry {
  std::string program;
  std::string text;  // without its line end
  LineKind kind;
};

// Reads log files as they grow.
class LogReader {
 public:
  // What has been written since the last call: whole lines, of several programs in the order of their times. Lines that
  // continue a message stay behind its first one.
  std::vector<LogEntry> newEntries(const std::vector<LogFile>& files);

 private:
  std::map<std::filesystem::path, std::streamoff> positions_;
};

}  // namespace tool
