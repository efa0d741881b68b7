// The terminal and the process's surroundings. console_posix.cpp and console_windows.cpp hold the same functions in the
// same order. All text is UTF-8.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "softtoken/bytes.h"

namespace tool {

// Prepares the terminal for output.
void prepareConsole();

// The words of the command line, the program's name first.
std::vector<std::string> commandLine(int argc, char** argv);

// Nothing when the variable is not set.
std::optional<softtoken::SecretBytes> secretVariable(const char* name);

// Asks on the terminal, even when the standard streams lead elsewhere, and reads a line without showing it. Throws
// Failure when there is no terminal or the user breaks off.
softtoken::SecretBytes askSecret(const std::string& question);

// Whether a person sits at the standard input.
bool inputIsTerminal();

// Whether the standard output is a terminal that shows colours and whose user has not declined them by NO_COLOR.
bool outputTakesColour();

}  // namespace tool
