#include "tool/manual.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <iterator>
#include <set>
#include <span>

#include "softtoken/token_folders.h"
#include "tool/command_line.h"
#include "tool/log_files.h"

namespace tool {
namespace {

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

void writeOptions(const CommandDescription& command, std::ostream& page) {
  for (const OptionDescription& option : command.options) {
    if (option.words != std::vector<std::string>{"--help", "-h"})
      page << ".TP\n.B " << troff(option.name) << '\n' << troff(option.text) << '\n';
  }
}

void writePage(const std::vector<CommandDescription>& commands, std::ostream& page) {
  const CommandDescription& program = commands.front();
  page << ".TH TAVRIN\\-TOOL 1 \"\" \"Tavrin " << TAVRIN_VERSION << "\" \"User Commands\"\n"
       << ".SH NAME\ntavrin\\-tool \\- manage security tokens and diagnose their use\n"
       << ".SH SYNOPSIS\n.B tavrin\\-tool\n.I command\n.RI [ option \" ...]\"\n"
       << ".SH DESCRIPTION\n"
       << troff(program.text) << '\n';
  page << ".SH OPTIONS\n.TP\n.B \\-h, \\-\\-help\nPrint help on the program, or on the command before it, and exit.\n";
  writeOptions(program, page);
  page << ".SH COMMANDS\n";
  for (const CommandDescription& command : std::span(commands).subspan(1)) {
    page << ".SS " << troff(command.words) << '\n' << troff(command.text) << '\n';
    if (!command.footer.empty()) page << ".PP\n" << troff(command.footer) << '\n';
    writeOptions(command, page);
  }
  page << ".SH NOTES\n" << troff(program.footer) << ".SH SEE ALSO\n.BR tavrin\\-pkcs11 (7)\n";
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

// The words that may follow a command: its subcommands, its options, and for some commands the names of tokens.
std::string wordsAfter(const CommandDescription& command) {
  std::vector<std::string> words = command.subcommands;
  bool takesName = false;
  for (const OptionDescription& option : command.options) {
    std::ranges::copy_if(option.words, std::back_inserter(words), [](auto& word) { return word.starts_with("--"); });
    takesName = takesName || option.name == "NAME";
  }
  if (command.words == "log level") words.insert(words.begin(), {"0", "1", "2", "3"});
  if (takesName && command.words != "token create") words.push_back("$(tavrin-tool names tokens 2>/dev/null)");
  return joined(words, " ");
}

// The options with a value of that kind.
std::string optionsWith(const char* value, const std::vector<CommandDescription>& commands) {
  std::set<std::string> words;
  for (const CommandDescription& command : commands) {
    for (const OptionDescription& option : command.options)
      if (option.value == value) words.insert(option.words.begin(), option.words.end());
  }
  return joined({words.begin(), words.end()}, " | ");
}

void writeCompletion(const std::vector<CommandDescription>& commands, std::ostream& script) {
  std::vector<std::string> names;
  for (const CommandDescription& command : std::span(commands).subspan(1)) names.push_back("'" + command.words + "'");
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
      << optionsWith("FILE", commands) << ") mapfile -t COMPREPLY < <(compgen -f -- \"$current\") && return ;;\n    "
      << optionsWith("PROGRAM", commands) << ") words=$(tavrin-tool names programs 2>/dev/null) ;;\n"
      << "    *)\n      case $command in\n";
  for (const CommandDescription& command : commands)
    script << "        '" << command.words << "') words=\"" << wordsAfter(command) << "\" ;;\n";
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

void addManualCommands(const Command& program) {
  const auto add = [](const Command& parent, const char* name, const std::function<void()>& print) {
    parent.addHidden(name).run([print] { return print(), 0; });
  };
  add(program, "manual", [program] { writePage(program.describe(), std::cout); });
  add(program, "completion", [program] { writeCompletion(program.describe(), std::cout); });
  const Command names = program.addHidden("names");
  add(names, "tokens", printTokenNames);
  add(names, "programs", printProgramNames);
}

}  // namespace tool
