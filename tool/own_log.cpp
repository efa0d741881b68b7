#include "tool/own_log.h"

#include "log/log.h"
#include "log/log_location.h"
#include "platform/platform.h"

namespace tool {

namespace platform = tavrin::platform;

LogPath::LogPath(const std::string& name) {
  const std::string folder = tavrin::logFolder();
  if (folder.empty()) return;
  path = folder + "/" + name;
  baseLength = folder.size() - std::size(tavrin::logFolderName);  // without the last "/" and the name
}

bool canLog() {
  const LogPath probe(".tavrin-tool");
  const bool written = platform::appendToFile(probe.path.c_str(), probe.baseLength, {});
  platform::cutFile(probe.path.c_str(), probe.baseLength, 0);
  return written;
}

OwnLog::OwnLog()
    : file_(tavrin::getProcessName() + "/" + tavrin::logFileName(platform::localTime())),
      size_(platform::sizeOfFile(file_.path.c_str(), file_.baseLength).value_or(0)) {}

OwnLog::~OwnLog() { platform::cutFile(file_.path.c_str(), file_.baseLength, size_); }

}  // namespace tool
