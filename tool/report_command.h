// tavrin-tool report: status and log as a page to look at and to send to support.
#pragma once

#include "tool/action.h"

namespace tool {

void addReportCommand(CLI::App& app, Action& action);

}  // namespace tool
