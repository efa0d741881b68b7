// tavrin-tool log ...
#pragma once

#include <string>

#include "tool/action.h"

namespace tool {

// What the module writes at a level, in a word.
const char* levelMeaning(int level);

// The level and its meaning.
std::string levelText(int level);

void addLogCommands(CLI::App& app, Action& action);

}  // namespace tool
