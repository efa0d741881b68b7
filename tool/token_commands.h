// tavrin-tool token ...
#pragma once

namespace tool {

class Command;

void addTokenCommands(const Command& program);

}  // namespace tool
