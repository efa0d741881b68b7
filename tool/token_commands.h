// tavrin-tool token ...
#pragma once

#include "tool/action.h"

namespace tool {

void addTokenCommands(CLI::App& app, Action& action);

}  // namespace tool
