#include <windows.h>

#include <string>

#include "log/log_location.h"
#include "softtoken/failure.h"
#include "tool/log_level.h"

namespace tool {

void setLogLevel(int level) {
  const auto value = static_cast<DWORD>(level);
  const LSTATUS status = ::RegSetKeyValueA(HKEY_LOCAL_MACHINE, tavrin::registryKey, tavrin::logLevelValue, REG_DWORD,
                                           &value, sizeof value);
  if (status == ERROR_SUCCESS) return;
  const std::string reason =
      status == ERROR_ACCESS_DENIED ? "run this as administrator" : "Windows error " + std::to_string(status);
  throw softtoken::Failure(softtoken::Status::badArgument, "cannot set the log level in the registry: " + reason);
}

}  // namespace tool
