// The command line. The sources of the commands describe their options with `Command`; the description serves the
// parser,
// --help, the manual page and the completion of words. Only command_line.cpp knows the library that parses.
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

// Returns what is wrong with a value; empty: nothing.
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

// A command. Copies describe the same command; none may be used after runCommandLine has returned. Variables for values
// must live as long as the action. The name of an option ends with that of its value: "--last,-n NUMBER".
class Command {
 public:
  Command(CLI::App& app, Action& chosen) : app_(&app), chosen_(&chosen) {}

  // A command below this one. It needs a command below itself unless it has an action.
  Command add(const std::string& name, const std::string& description) const;
  // One that --help does not list.
  Command addHidden(const std::string& name) const;

  void run(const Action& action) const;
  // Printed below the options. Commands that are added later have the same one.
  void footer(const std::string& text) const;

  void argument(const std::string& name, std::string& value, const std::string& description) const;
  void requiredArgument(const std::string& name, std::string& value, const std::string& description) const;
  // A number from 0 to `most`.
  void argument(const std::string& name, int& value, int most, const std::string& description) const;

  void flag(const std::string& name, bool& value, const std::string& description) const;
  void option(const std::string& name, std::string& value, const std::string& description,
              ValueCheck check = nullptr) const;
  void option(const std::string& name, std::uint32_t& value, const std::string& description) const;
  void option(const std::string& name, std::uint64_t& value, const std::string& description) const;
  // Its value may be left out; `take` then receives an empty one.
  void option(const std::string& name, const std::function<void(const std::string&)>& take,
              const std::string& description) const;
  // Not both of two options.
  void exclude(const std::string& one, const std::string& other) const;

  // This command and all below it that --help lists, each before its subcommands.
  std::vector<CommandDescription> describe() const;

 private:
  CLI::App* app_;
  Action* chosen_;
};

// Parses the words after the program's name and carries them out. Returns the exit code. Throws UsageError, or
// softtoken::Failure with what went wrong.
int runCommandLine(const std::vector<std::string>& words);

}  // namespace tool
