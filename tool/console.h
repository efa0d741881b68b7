// The terminal and the environment of the process. console_posix.cpp and console_windows.cpp hold the same functions in
// the same order. All text is UTF-8.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "softtoken/bytes.h"

namespace tool {

// Prepares the terminal for UTF-8 output, and restores it when destroyed.
class ConsoleOutput {
 public:
  ConsoleOutput();
  ~ConsoleOutput();  // NOLINT(performance-trivially-destructible): on Windows it restores the code page
  ConsoleOutput(const ConsoleOutput&) = delete;
  ConsoleOutput& operator=(const ConsoleOutput&) = delete;

 private:
  unsigned before_ = 0;  // the code page, on Windows
};

// Discards what this process writes to its standard output while this object exists. Libraries that print do not damage
// the tool's own output.
class SilencedOutput {
 public:
  SilencedOutput();
  ~SilencedOutput();
  SilencedOutput(const SilencedOutput&) = delete;
  SilencedOutput& operator=(const SilencedOutput&) = delete;

 private:
  int kept_;  // the standard output's descriptor
};

// The words of the command line, the program's name first.
std::vector<std::string> commandLine(int argc, char** argv);

// Nothing when the variable is not set.
std::optional<softtoken::SecretBytes> secretVariable(const char* name);

// The variable's value; empty when it is not set.
std::string environmentText(const char* name);

// A path in the system's 8-bit encoding, in which the module's own functions name files.
std::filesystem::path systemPath(const std::string& text);

// Asks on the terminal, even when the standard streams are redirected, and reads a line without showing it. Throws
// Failure when there is no terminal or the user cancels. A signal that ends the process restores the terminal first.
softtoken::SecretBytes askSecret(const std::string& question);

bool inputIsTerminal();
bool outputIsTerminal();

// Whether the standard output is a terminal that shows colours and whose user has not declined them by NO_COLOR.
bool outputTakesColour();

}  // namespace tool
