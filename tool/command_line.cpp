#include "tool/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <numeric>

#include "tool/import_command.h"
#include "tool/log_commands.h"
#include "tool/manual.h"
#include "tool/report_command.h"
#include "tool/status_command.h"
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

// The candidate that is most similar to the word; empty when none is similar.
std::string nearest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t smallest = std::max<std::size_t>(2, word.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const std::size_t distance = candidate.starts_with(word) ? 1 : distanceBetween(word, candidate);
    if (distance >= smallest) continue;
    smallest = distance;
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

// Explains the first word that the parser did not accept. A value after "=" may be a password, so it is left out.
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

// `name` holds the option's name and that of its value, such as "--label TEXT".
template <class Value>
CLI::Option& addOption(CLI::App& app, const std::string& name, Value& value, const std::string& description) {
  const std::size_t space = std::min(name.find(' '), name.size());
  CLI::Option* option = nullptr;
  if constexpr (std::is_invocable_v<Value, const std::string&>) {
    option = app.add_option_function<std::string>(name.substr(0, space), value, description);
  } else {
    option = app.add_option(name.substr(0, space), value, description);
  }
  return *option->type_name(space == name.size() ? "" : name.substr(space + 1));
}

std::vector<const CLI::App*> listedCommands(const CLI::App& command) {
  return command.get_subcommands([](const CLI::App* subcommand) { return !subcommand->get_group().empty(); });
}

OptionDescription describeOption(const CLI::Option& option) {
  OptionDescription description;
  description.text = option.get_description();
  if (option.get_positional()) {
    description.name = option.get_name();
    return description;
  }
  if (option.get_type_size() > 0) description.value = option.get_type_name();
  description.name = option.get_name(false, true) + (description.value.empty() ? "" : " " + description.value);
  for (const std::string& name : option.get_lnames()) description.words.push_back("--" + name);
  for (const std::string& name : option.get_snames()) description.words.push_back("-" + name);
  return description;
}

void describeCommand(const CLI::App& command, std::vector<CommandDescription>& found) {
  CommandDescription description;
  description.words = fullName(command);
  description.text = command.get_description();
  description.footer = command.get_footer();
  for (const CLI::App* subcommand : listedCommands(command)) description.subcommands.push_back(subcommand->get_name());
  for (const CLI::Option* option : command.get_options()) description.options.push_back(describeOption(*option));
  found.push_back(std::move(description));
  for (const CLI::App* subcommand : listedCommands(command)) describeCommand(*subcommand, found);
}

}  // namespace

Command Command::add(const std::string& name, const std::string& description) const {
  CLI::App* command = app_->add_subcommand(name, description);
  command->require_subcommand(1);
  return {*command, *chosen_};
}

Command Command::addHidden(const std::string& name) const {
  const Command command = add(name, "");
  command.app_->group("");
  return command;
}

void Command::run(const Action& action) const {
  app_->require_subcommand(0, 1);
  // The parser calls this also when a subcommand was chosen, after the subcommand's own.
  app_->callback([app = app_, chosen = chosen_, action] {
    if (app->get_subcommands().empty()) *chosen = action;
  });
}

void Command::footer(const std::string& text) const { app_->footer(text); }

void Command::argument(const std::string& name, std::string& value, const std::string& description) const {
  addOption(*app_, name, value, description);
}

void Command::requiredArgument(const std::string& name, std::string& value, const std::string& description) const {
  addOption(*app_, name, value, description).required();
}

void Command::argument(const std::string& name, int& value, int maximum, const std::string& description) const {
  addOption(*app_, name, value, description).check(CLI::Range(0, maximum));
}

void Command::flag(const std::string& name, bool& value, const std::string& description) const {
  app_->add_flag(name, value, description);
}

void Command::option(const std::string& name, std::string& value, const std::string& description,
                     ValueCheck check) const {
  CLI::Option& option = addOption(*app_, name, value, description);
  if (check) option.check(check);
}

void Command::option(const std::string& name, std::uint32_t& value, const std::string& description) const {
  addOption(*app_, name, value, description);
}

void Command::option(const std::string& name, std::uint64_t& value, const std::string& description) const {
  addOption(*app_, name, value, description);
}

void Command::option(const std::string& name, const std::function<void(const std::string&)>& take,
                     const std::string& description) const {
  addOption(*app_, name, take, description).expected(0, 1);
}

void Command::exclude(const std::string& one, const std::string& other) const {
  app_->get_option(one)->excludes(app_->get_option(other));
}

std::vector<CommandDescription> Command::describe() const {
  std::vector<CommandDescription> found;
  describeCommand(*app_, found);
  return found;
}

int runCommandLine(const std::vector<std::string>& words) {
  Action action;
  CLI::App app("Manages tokens, and diagnoses what applications see of them.", "tavrin-tool");
  app.allow_windows_style_options(false);  // a word that begins with "/" is a path
  app.get_formatter()->column_width(28);
  app.set_version_flag("--version", std::string("tavrin-tool ") + TAVRIN_VERSION);
  app.require_subcommand(1);
  const Command program(app, action);
  addImportCommand(program);
  addStatusCommand(program);
  addLogCommands(program);
  addReportCommand(program);
  addTokenCommands(program);
  addManualCommands(program);
  program.footer(footer);  // now, so that commands do not inherit it
  try {
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return 0;
  } catch (const CLI::CallForVersion& version) {
    std::cout << version.what() << '\n';
    return 0;
  } catch (const CLI::ParseError& error) {
    throwUsageError(app, error);
  }
  return action();
}

}  // namespace tool
