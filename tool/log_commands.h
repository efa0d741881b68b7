// tavrin-tool log ...
#pragma once

namespace tool {

class Command;

void addLogCommands(const Command& program);

}  // namespace tool
