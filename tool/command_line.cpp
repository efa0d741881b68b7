#include "tool/command_line.h"

#include <algorithm>
#include <iostream>
#include <numeric>

#include "tool/import_command.h"
#include "tool/log_commands.h"
#include "tool/manual.h"
#include "tool/report_command.h"
#include "tool/status.h"
#include "tool/text.h"
#include "tool/token_commands.h"

namespace tool {
namespace {

constexpr const char* footer =
    "Exit codes: 0 success, 1 failure, 2 wrong usage. For status: 0 no findings, 1 the module\n"
    "or a token cannot be used, or no token is connected, 3 warnings only.\n";

// The number of letters to insert, remove or replace to turn one word into the other.
std::size_t distanceBetween(std::string_view left, std::string_view right) {
  std::vector<std::size_t> row(right.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < left.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < right.size(); ++j) {
      const std::size_t replaced = diagonal + (left[i] == right[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// The candidate that was probably meant; empty when none is close.
std::string nearest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t least = std::max<std::size_t>(2, word.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const std::size_t distance = candidate.starts_with(word) ? 1 : distanceBetween(word, candidate);
    if (distance >= least) continue;
    least = distance;
    best = candidate;
  }
  return best;
}

const CLI::App& deepestParsed(const CLI::App& app) {
  const auto parsed = app.get_subcommands();
  return parsed.empty() ? app : deepestParsed(*parsed.back());
}

std::vector<std::string> optionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options())
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

std::vector<std::string> commandNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::App* subcommand : command.get_subcommands({})) names.push_back(subcommand->get_name());
  return names;
}

// The words of a command, without the program's name.
std::string fullName(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  if (!parent) return {};
  const std::string before = fullName(*parent);
  return before.empty() ? command.get_name() : before + " " + command.get_name();
}

// Explains the first word that nothing took. A value after "=" may be a password and is left out.
std::string unknownWord(const CLI::App& command, std::string word) {
  const bool option = word.starts_with("-");
  if (option) word.erase(std::min(word.find('='), word.size()));
  const std::string name = fullName(command);
  const std::vector<std::string> commands = commandNames(command);
  std::string text = name.empty() ? "there is" : name + (option || !commands.empty() ? " has" : " takes");
  text += option ? " no option " : commands.empty() ? " no word " : " no command ";
  const std::string guess = nearest(word, option ? optionNames(command) : commands);
  return text + printable(word) + (guess.empty() ? "" : "; did you mean " + guess + "?");
}

[[noreturn]] void throwUsageError(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& command = deepestParsed(app);
  const std::string name = fullName(command);
  const auto rest = app.remaining(true);
  std::string text;
  if (!rest.empty()) {
    text = unknownWord(command, rest.front());
  } else if (command.get_require_subcommand_min() > 0) {
    text = "say what to do" + (name.empty() ? "" : " with " + name);
  } else {
    text = (name.empty() ? "" : name + ": ") + printable(error.what());
  }
  throw UsageError(text + (text.back() == '?' ? " See" : "; see") + " tavrin-tool" + (name.empty() ? "" : " " + name) +
                   " --help");
}

}  // namespace

std::unique_ptr<CLI::App> makeCommandLine(Action& action) {
  auto app = std::make_unique<CLI::App>("Manages tokens, and diagnoses what applications see of them.", "tavrin-tool");
  app->allow_windows_style_options(false);  // "/" begins a path
  app->get_formatter()->column_width(28);
  app->set_version_flag("--version", std::string("tavrin-tool ") + TAVRIN_VERSION);
  app->require_subcommand(1);
  addImportCommand(*app, action);
  addStatusCommand(*app, action);
  addLogCommands(*app, action);
  addReportCommand(*app, action);
  addTokenCommands(*app, action);
  addManualCommands(*app, action);
  app->footer(footer);  // now, so that commands do not inherit it
  return app;
}

int runCommandLine(const std::vector<std::string>& words) {
  Action action;
  const std::unique_ptr<CLI::App> app = makeCommandLine(action);
  try {
    app->parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::CallForHelp&) {
    std::cout << app->help();
    return 0;
  } catch (const CLI::CallForVersion& version) {
    std::cout << version.what() << '\n';
    return 0;
  } catch (const CLI::ParseError& error) {
    throwUsageError(*app, error);
  }
  return action();
}

}  // namespace tool
