// The commands that print the manual page and the completion script, both made from the description of the command
// line. The builds of the packages use them; --help does not list them.
#pragma once

namespace tool {

class Command;

void addManualCommands(const Command& program);

}  // namespace tool
