// The module's log files: one for each program and day, below the temporary folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
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

// The files of a day, sorted by program.
std::vector<LogFile> logFilesOf(const std::string& day);

// A log file in any folder; the folder's name is taken for the program's. Throws Failure when it cannot be read.
LogFile logFileAt(const std::filesystem::path& path);

enum class LineKind { debug, error, other };

struct LogEntry {
  std::string program;
  std::string text;  // without its line end
  LineKind kind;
  std::string time;  // DD/MM::HH:MM:SS:mmm; within a day the texts sort like the times
};

// The part of a message's line after its time and level; the whole line when it has none.
std::string_view messageIn(std::string_view line);

// Reads log files as they grow. Memory does not depend on the files' sizes.
class LogReader {
 public:
  // Passes to `take` the lines that were written since the last call, ordered by time across all programs. A last line
  // without a line end waits for the next call. Lines that continue a message follow its first one. A file that became
  // shorter is read from its beginning.
  void read(const std::vector<LogFile>& files, const std::function<void(const LogEntry&)>& take);

 private:
  std::map<std::filesystem::path, std::streamoff> positions_;
};

}  // namespace tool
