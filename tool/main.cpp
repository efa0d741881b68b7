#include <algorithm>
#include <iostream>

#include "softtoken/failure.h"
#include "tool/command_line.h"
#include "tool/console.h"
#include "tool/log_commands.h"
#include "tool/status.h"
#include "tool/token_commands.h"

namespace {

enum ExitCode : int { succeeded = 0, failed = 1, badUsage = 2 };  // status has a code of its own

struct CommandGroup {
  std::string_view name;
  int (*run)(const std::vector<std::string>& words);  // returns the exit code
};

constexpr CommandGroup groups[] = {
    {"status", tool::runStatusCommand}, {"log", tool::runLogCommand}, {"token", tool::runTokenCommand}};

void printHelp() {
  std::cout << "Usage:\n"
            << tool::statusUsage << tool::logUsage << tool::tokenUsage()
            << "  tavrin-tool --help | --version\n"
               "\n"
               "Passwords have 4 to 63 bytes. They are read from the first line of the file that is\n"
               "given, else from the environment variables TAVRIN_PIN, TAVRIN_SO_PIN and, for the new\n"
               "user password of unlock, TAVRIN_NEW_PIN, else from the terminal. Tokens live in\n"
               "$TAVRIN_SOFT_TOKENS or, without it, among the user's application data.\n"
               "\n"
               "status shows what an application would find, and costs no password try. log shows\n"
               "what the module has written today; its levels are 0 and 1 for nothing, 2 for errors\n"
               "and 3 for everything.\n"
               "\n"
               "Exit codes: 0 done, 1 failed, 2 no such command or option. Of status: 0 all is well,\n"
               "1 the module or a token cannot be used, or no token is connected, 3 something needs\n"
               "attention.\n";
}

int run(const std::vector<std::string>& words) {
  if (words.size() < 2) throw tool::UsageError("say what to do");
  if (words[1] == "-h" || std::ranges::find(words, "--help") != words.end()) {
    printHelp();
    return succeeded;
  }
  if (words[1] == "--version") {
    std::cout << "tavrin-tool " << TAVRIN_VERSION << '\n';
    return succeeded;
  }
  for (const CommandGroup& group : groups)
    if (group.name == words[1]) return group.run({words.begin() + 2, words.end()});
  throw tool::UsageError("there is no command " + words[1]);
}

int report(const char* text, ExitCode code) {
  std::cout.flush();
  std::cerr << "tavrin-tool: " << text << (code == badUsage ? "; see tavrin-tool --help" : "") << '\n';
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    tool::prepareConsole();
    const int code = run(tool::commandLine(argc, argv));
    std::cout.flush();
    return std::cout ? code : report("cannot write the output", failed);
  } catch (const tool::UsageError& error) {
    return report(error.what(), badUsage);
  } catch (const std::exception& error) {
    return report(error.what(), failed);
  }
}
