// The manual page and the completion of words, both made from the description of the command line. Packages are built
// with these commands; --help does not list them.
#pragma once

namespace tool {

class Command;

void addManualCommands(const Command& program);

}  // namespace tool
