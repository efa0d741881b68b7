// What the tool itself writes to the module's log. The module's rules for links and other users' files apply.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// A file below the folder of the log, in the form that the platform layer's functions take.
struct LogPath {
  explicit LogPath(const std::string& name);

  std::string path;  // empty when the system names no folder for temporary files
  std::size_t baseLength = 0;
};

// Whether the module can write a log: creates a file in the folder of the log, and removes it again.
bool canLog();

// Removes the lines that this program's calls write to the log while the object exists, so that the log shows those of
// applications only.
class OwnLog {
 public:
  OwnLog();
  ~OwnLog();
  OwnLog(const OwnLog&) = delete;
  OwnLog& operator=(const OwnLog&) = delete;

 private:
  LogPath file_;
  std::uint64_t size_;  // before; 0: there was no file
};

}  // namespace tool
