#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "log/log_location.h"
#include "platform/platform.h"
#include "softtoken/failure.h"
#include "tool/log_level.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

// Programs read the file at any time, so it is replaced as a whole.
bool replaceText(const fs::path& file, const std::string& text) {
  const fs::path next = file.string() + "." + std::to_string(::getpid()) + ".new";
  std::error_code error;
  fs::create_directories(file.parent_path(), error);
  std::ofstream stream(next);
  stream << text;
  stream.close();
  // Every user's programs read it, whatever the administrator's umask.
  const auto everyonesToRead =
      fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read;
  if (stream) fs::permissions(next, everyonesToRead, error);
  if (stream && !error) fs::rename(next, file, error);
  if (stream && !error) return true;
  fs::remove(next, error);
  return false;
}

}  // namespace

void setLogLevel(int level) {
  const fs::path file = platform::registryFile(tavrin::registryKey, tavrin::logLevelValue);
  if (!replaceText(file, std::to_string(level) + "\n")) {
    throw softtoken::Failure(softtoken::Status::badArgument,
                             "cannot write " + file.string() + "; the level is the administrator's to set");
  }
}

}  // namespace tool
