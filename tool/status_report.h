// The two forms of the status report.
#pragma once

#include <string>

#include "tool/status.h"

namespace tool {

// For people: one screen of 80 columns where names and paths let it, what needs attention at its end.
std::string textReport(const SystemStatus& status);

// The same for scripts. Members are always there; what is unknown is an empty text, and "triesLeftExactly" is -1.
std::string jsonReport(const SystemStatus& status);

}  // namespace tool
