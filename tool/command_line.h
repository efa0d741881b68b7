// The command line. One description of commands and options serves the parser, --help, the manual page and the
// completion of words.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tool/action.h"

namespace tool {

// The command line is wrong; the text says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// All commands. Parsing stores the chosen command's action in `action`, which must outlive the result.
std::unique_ptr<CLI::App> makeCommandLine(Action& action);

// Parses the words after the program's name and carries them out. Returns the exit code. Throws UsageError, or
// softtoken::Failure with what went wrong.
int runCommandLine(const std::vector<std::string>& words);

}  // namespace tool
