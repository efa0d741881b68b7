// tavrin-tool status
#pragma once

namespace tool {

class Command;

void addStatusCommand(const Command& program);

}  // namespace tool
