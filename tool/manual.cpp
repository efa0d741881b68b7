#include "tool/manual.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "softtoken/token_folders.h"
#include "tool/log_files.h"

namespace tool {
namespace {

// Commands that --help lists.
std::vector<const CLI::App*> subcommandsOf(const CLI::App& command) {
  return command.get_subcommands([](const CLI::App* subcommand) { return !subcommand->get_group().empty(); });
}

// All commands below one, with their words from there on.
void collect(const CLI::App& command, const std::string& words,
             std::vector<std::pair<std::string, const CLI::App*>>& found) {
  for (const CLI::App* subcommand : subcommandsOf(command)) {
    const std::string name = words.empty() ? subcommand->get_name() : words + " " + subcommand->get_name();
    found.emplace_back(name, subcommand);
    collect(*subcommand, name, found);
  }
}

// troff reads "\" as an escape, "-" as a hyphen, and a point or an apostrophe at the beginning of a line as a request.
std::string troff(const std::string& text) {
  std::string result;
  bool lineStart = true;
  for (const char letter : text) {
    if (lineStart && (letter == '.' || letter == '\'')) result += "\\&";
    lineStart = letter == '\n';
    if (letter == '\\') {
      result += "\\e";
    } else if (letter == '-') {
      result += "\\-";
    } else {
      result += letter;
    }
  }
  return result;
}

// Such as --label TEXT, or NAME.
std::string nameOf(const CLI::Option& option) {
  if (option.get_positional()) return option.get_name();
  const std::string value = option.get_type_size() > 0 ? option.get_type_name() : "";
  return option.get_name(false, true) + (value.empty() ? "" : " " + value);
}

// Those that --help lists, without --help itself.
std::vector<const CLI::Option*> optionsOf(const CLI::App& command) {
  return command.get_options(
      [&](const CLI::Option* option) { return !option->get_group().empty() && option != command.get_help_ptr(); });
}

void writeOptions(const CLI::App& command, std::ostream& page) {
  for (const CLI::Option* option : optionsOf(command))
    page << ".TP\n.B " << troff(nameOf(*option)) << '\n' << troff(option->get_description()) << '\n';
}

void writePage(const CLI::App& app, std::ostream& page) {
  page << ".TH TAVRIN\\-TOOL 1 \"\" \"Tavrin " << TAVRIN_VERSION << "\" \"User Commands\"\n"
       << ".SH NAME\ntavrin\\-tool \\- manage security tokens and diagnose their use\n"
       << ".SH SYNOPSIS\n.B tavrin\\-tool\n.I command\n.RI [ option \" ...]\"\n"
       << ".SH DESCRIPTION\n"
       << troff(app.get_description()) << '\n';
  page << ".SH OPTIONS\n.TP\n.B \\-h, \\-\\-help\nPrint help on the program, or on the command before it, and exit.\n";
  writeOptions(app, page);
  page << ".SH COMMANDS\n";
  std::vector<std::pair<std::string, const CLI::App*>> commands;
  collect(app, {}, commands);
  for (const auto& [words, command] : commands) {
    page << ".SS " << troff(words) << '\n' << troff(command->get_description()) << '\n';
    if (!command->get_footer().empty()) page << ".PP\n" << troff(command->get_footer()) << '\n';
    writeOptions(*command, page);
  }
  page << ".SH NOTES\n" << troff(app.get_footer()) << ".SH SEE ALSO\n.BR tavrin\\-pkcs11 (7)\n";
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

// What may follow a command: its subcommands and options, and the names that only the machine knows.
std::string wordsAfter(const std::string& name, const CLI::App& command) {
  std::vector<std::string> words;
  for (const CLI::App* subcommand : subcommandsOf(command)) words.push_back(subcommand->get_name());
  for (const CLI::Option* option : command.get_options())
    for (const std::string& longName : option->get_lnames()) words.push_back("--" + longName);
  if (name == "log level") words.insert(words.begin(), {"0", "1", "2", "3"});
  const CLI::Option* token = command.get_option_no_throw("NAME");
  if (token && name != "token create") words.push_back("$(tavrin-tool names tokens 2>/dev/null)");
  return joined(words, " ");
}

// The options with a value of that type.
std::string optionsOfType(const std::vector<std::pair<std::string, const CLI::App*>>& commands, const char* type) {
  std::vector<std::string> names;
  for (const auto& [words, command] : commands) {
    for (const CLI::Option* option : command->get_options()) {
      if (option->get_positional() || option->get_type_name() != type) continue;
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
      for (const std::string& name : option->get_snames()) names.push_back("-" + name);
    }
  }
  std::ranges::sort(names);
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return joined(names, " | ");
}

void writeCompletion(const CLI::App& app, std::ostream& script) {
  std::vector<std::pair<std::string, const CLI::App*>> commands;
  collect(app, {}, commands);
  std::vector<std::string> names;
  names.reserve(commands.size());
  for (const auto& [words, command] : commands) names.push_back("'" + words + "'");
  script
      << "# Completion of tavrin-tool's commands, options, tokens and programs for bash.\n"
         "_tavrin_tool() {\n"
         "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word words=''\n"
         "  COMPREPLY=()\n"
         "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
         "    word=${command:+$command }$word\n"
         "    case $word in\n      "
      << joined(names, " | ")
      << ") command=$word ;;\n"
         "    esac\n"
         "  done\n"
         "  case $previous in\n    "
      << optionsOfType(commands, "FILE") << ") mapfile -t COMPREPLY < <(compgen -f -- \"$current\") && return ;;\n    "
      << optionsOfType(commands, "PROGRAM") << ") words=$(tavrin-tool names programs 2>/dev/null) ;;\n"
      << "    *)\n      case $command in\n        '') words=\"" << wordsAfter({}, app) << "\" ;;\n";
  for (const auto& [words, command] : commands)
    script << "        '" << words << "') words=\"" << wordsAfter(words, *command) << "\" ;;\n";
  script << "      esac\n"
            "      ;;\n"
            "  esac\n"
            "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
            "  [[ ${#COMPREPLY[@]} -gt 0 || $current == -* ]] || mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
            "}\n"
            "complete -o filenames -F _tavrin_tool tavrin-tool\n";
}

void printTokenNames() {
  for (const softtoken::TokenSummary& token : softtoken::allTokens()) std::cout << token.name << '\n';
}

void printProgramNames() {
  for (const LogFile& file : logFilesOf(today())) std::cout << file.program << '\n';
}

}  // namespace

void addManualCommands(CLI::App& app, Action& action) {
  const auto add = [&](CLI::App& parent, const char* name, const std::function<void()>& print) {
    CLI::App& command = *parent.add_subcommand(name)->group("");
    command.callback([print, &action] { action = [print] { return print(), 0; }; });
  };
  add(app, "manual", [&app] { writePage(app, std::cout); });
  add(app, "completion", [&app] { writeCompletion(app, std::cout); });
  CLI::App& names = *app.add_subcommand("names")->group("");
  names.require_subcommand(1);
  add(names, "tokens", printTokenNames);
  add(names, "programs", printProgramNames);
}

}  // namespace tool
