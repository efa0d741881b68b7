// The manual page and the completion of words, both made from the description of the command line. Packages are built
// with these commands; --help does not list them.
#pragma once

#include "tool/action.h"

namespace tool {

void addManualCommands(CLI::App& app, Action& action);

}  // namespace tool
