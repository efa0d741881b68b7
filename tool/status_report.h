// The two forms of the status report.
#pragma once

#include <string>

#include "tool/status.h"

namespace tool {

// For people. Lines have at most 80 columns unless names or paths are longer. Findings are at the end.
std::string textReport(const SystemStatus& status);

// The same as JSON, for scripts. All members are always present. An unknown text is empty; an unknown
// "triesLeftExactly" is -1.
std::string jsonReport(const SystemStatus& status);

}  // namespace tool
