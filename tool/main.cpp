#include <iostream>

#include "tool/command_line.h"
#include "tool/console.h"
#include "tool/text.h"

namespace {

enum ExitCode : int { failed = 1, badUsage = 2 };

int report(const char* text, ExitCode code) {
  std::cout.flush();
  std::cerr << "tavrin-tool: " << tool::printable(text) << '\n';
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const tool::ConsoleOutput console;
    const std::vector<std::string> words = tool::commandLine(argc, argv);
    const int code = tool::runCommandLine({words.begin() + 1, words.end()});
    std::cout.flush();
    return std::cout ? code : report("cannot write the output", failed);
  } catch (const tool::UsageError& error) {
    return report(error.what(), badUsage);
  } catch (const std::exception& error) {
    return report(error.what(), failed);
  }
}
