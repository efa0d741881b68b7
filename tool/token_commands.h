// tavrin-tool token ...
#pragma once

#include "tool/command_line.h"

namespace tool {

void addTokenCommands(CLI::App& app, Action& action);

}  // namespace tool
