// The command line. Each command describes its options with `Command`. The parser, --help, the manual page and the
// completion of words all use this description. Only command_line.cpp includes the parser's library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tool {

// The command line is wrong; the text says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Carries out a command and returns the exit code.
using Action = std::function<int()>;

// Returns what is wrong with a value, or an empty text.
using ValueCheck = std::string (*)(const std::string& value);

struct OptionDescription {
  std::string name;                // with its value, such as "--label TEXT"; the name of an argument
  std::vector<std::string> words;  // such as "--program" and "-p"; none for an argument
  std::string value;               // such as "TEXT"; may be empty
  std::string text;
};

struct CommandDescription {
  std::string words;  // such as "token create"; empty for the program
  std::string text;
  std::string footer;
  std::vector<std::string> subcommands;  // those that --help lists
  std::vector<OptionDescription> options;
};

// A command. Copies refer to the same command; none may be used after runCommandLine has returned. The variables that
// receive values must live as long as the action. The name of an option includes that of its value: "--last,-n NUMBER".
class Command {
 public:
  Command(CLI::App& app, Action& chosen) : app_(&app), chosen_(&chosen) {}

  // Adds a subcommand. Unless run() gives it an action, it requires a subcommand of its own.
  Command add(const std::string& name, const std::string& description) const;
  // Adds a subcommand that --help does not list.
  Command addHidden(const std::string& name) const;

  // Sets the action that is carried out when this command is chosen.
  void run(const Action& action) const;
  // Sets the text below the options. Subcommands that are added later inherit it.
  void footer(const std::string& text) const;

  void argument(const std::string& name, std::string& value, const std::string& description) const;
  void requiredArgument(const std::string& name, std::string& value, const std::string& description) const;
  // Accepts numbers from 0 to `maximum`.
  void argument(const std::string& name, int& value, int maximum, const std::string& description) const;

  void flag(const std::string& name, bool& value, const std::string& description) const;
  void option(const std::string& name, std::string& value, const std::string& description,
              ValueCheck check = nullptr) const;
  void option(const std::string& name, std::uint32_t& value, const std::string& description) const;
  void option(const std::string& name, std::uint64_t& value, const std::string& description) const;
  // The value may be left out; `take` then receives an empty text.
  void option(const std::string& name, const std::function<void(const std::string&)>& take,
              const std::string& description) const;
  // Refuses a command line with both options.
  void exclude(const std::string& one, const std::string& other) const;

  // Describes this command and all commands below it that --help lists, each before its subcommands.
  std::vector<CommandDescription> describe() const;

 private:
  CLI::App* app_;
  Action* chosen_;
};

// Parses the words that follow the program's name and carries out the command. Returns the exit code. Throws UsageError
// or softtoken::Failure with the reason.
int runCommandLine(const std::vector<std::string>& words);

}  // namespace tool
