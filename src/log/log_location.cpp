#include "log/log_location.h"

#include <cstdio>

#include "log/log.h"

namespace tavrin {

std::string logFolder() {
  char baseFolder[logPathSize];
  if (!platform::temporaryFolder(logFolderName, baseFolder, sizeof baseFolder)) return {};
  return std::string(baseFolder) + "/" + logFolderName;
}

std::string logFileName(const platform::LocalTime& day) {
  char name[32];
  std::snprintf(name, sizeof name, "%04d-%02d-%02d%s", day.year, day.month, day.day, logFileExtension);
  return name;
}

}  // namespace tavrin
