// tavrin-tool log ...
#pragma once

#include <string>

namespace tool {

class Command;

// What the module writes at a level, in one word.
const char* levelMeaning(int level);

// The level and its meaning.
std::string levelText(int level);

void addLogCommands(const Command& program);

}  // namespace tool
