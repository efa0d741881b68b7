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

// The programs of all users must be able to read the level, so the administrator's umask is not used. Existing folders
// keep their permissions.
void makeReadableFolder(const fs::path& folder) {
  std::error_code error;
  if (folder.empty() || fs::exists(folder, error)) return;
  makeReadableFolder(folder.parent_path());
  if (fs::create_directory(folder, error)) fs::permissions(folder, fs::perms(0755), error);
}

// Programs may read the file at any time, so it is replaced by a complete new one.
bool replaceText(const fs::path& file, const std::string& text) {
  const fs::path next = file.string() + "." + std::to_string(::getpid()) + ".new";
  std::error_code error;
  makeReadableFolder(file.parent_path());
  std::ofstream stream(next);
  stream << text;
  stream.close();
  if (stream) fs::permissions(next, fs::perms(0644), error);
  if (stream && !error) fs::rename(next, file, error);
  if (stream && !error) return true;
  fs::remove(next, error);
  return false;
}

}  // namespace

void setLogLevel(int level) {
  const fs::path file = tavrin::platform::registryFile(tavrin::registryKey, tavrin::logLevelValue);
  if (!replaceText(file, std::to_string(level) + "\n")) {
    throw softtoken::Failure(softtoken::Status::badArgument,
                             "cannot write " + file.string() + "; only an administrator can set the level");
  }
}

}  // namespace tool
