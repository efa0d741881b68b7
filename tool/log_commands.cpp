#include "tool/log_commands.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <thread>

#include "log/log.h"
#include "softtoken/platform.h"
#include "tool/console.h"
#include "tool/json.h"
#include "tool/log_files.h"
#include "tool/log_level.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr auto pollInterval = std::chrono::milliseconds(200);

struct Options {
  std::string day;  // empty: today, also after midnight
  std::string program;
  std::string text;
  bool errorsOnly = false;
  bool follow = false;
  int level = -1;
  bool json = false;
};

// A message when the text is no day, as CLI11 wants it.
std::string checkDay(const std::string& day) {
  constexpr std::string_view pattern = "0000-00-00";
  const bool fits = std::ranges::equal(day, pattern, [](char letter, char expected) {
    return expected == '0' ? letter >= '0' && letter <= '9' : letter == expected;
  });
  return fits ? std::string() : "takes a day as YYYY-MM-DD, not " + day;
}

std::vector<LogFile> wantedFiles(const Options& options) {
  std::vector<LogFile> files = logFilesOf(options.day.empty() ? today() : options.day);
  if (!options.program.empty())
    std::erase_if(files, [&](const LogFile& file) { return file.program != options.program; });
  return files;
}

bool wanted(const LogEntry& entry, const Options& options) {
  if (options.errorsOnly && entry.kind != LineKind::error) return false;
  return entry.text.find(options.text) != std::string::npos;
}

const char* colourOf(LineKind kind) {
  if (kind == LineKind::error) return "\x1B[31m";
  return kind == LineKind::debug ? "\x1B[2m" : "";
}

void print(const LogEntry& entry, const Options& options, bool coloured) {
  if (!wanted(entry, options)) return;
  const char* colour = coloured ? colourOf(entry.kind) : "";
  std::cout << colour << printable(options.program.empty() ? entry.program + " | " + entry.text : entry.text)
            << (*colour != '\0' ? "\x1B[0m" : "") << '\n';
}

void explainNothing(const Options& options) {
  const std::string text = "There is no log of " + (options.day.empty() ? "today" : options.day) +
                           (options.program.empty() ? "" : " by " + options.program) + " in " +
                           softtoken::textOf(logFolder()) + "; the log level is " + levelText(tavrin::getLogLevel());
  std::cerr << printable(text) << '\n';
}

// The module cuts the program's file name there too.
std::string untilPoint(const std::string& name) { return name.substr(0, name.find('.')); }

int show(Options& options) {
  options.program = untilPoint(options.program);
  const bool coloured = outputTakesColour();
  const auto printOne = [&](const LogEntry& entry) { print(entry, options, coloured); };
  LogReader reader;
  const std::vector<LogFile> files = wantedFiles(options);
  if (files.empty()) explainNothing(options);
  reader.read(files, printOne);
  while (options.follow && std::cout.flush()) {
    std::this_thread::sleep_for(pollInterval);
    reader.read(wantedFiles(options), printOne);
  }
  return 0;
}

int level(const Options& options) {
  if (options.level >= 0) setLogLevel(options.level);
  const int now = tavrin::getLogLevel();
  if (options.json) {
    std::cout << jsonText({{"level", now}, {"meaning", levelMeaning(now)}}) << '\n';
  } else {
    std::cout << "The log level is " << levelText(now) << '\n';
  }
  return 0;
}

void addShowOptions(CLI::App& command, Options& options) {
  command.add_flag("--follow,-f", options.follow, "Wait for new lines and show them");
  command.add_flag("--errors,-e", options.errorsOnly, "Show refusals and failures only");
  command.add_option("--grep", options.text, "Show lines with this text only")->type_name("TEXT");
  command.add_option("--program,-p", options.program, "Show one program's lines only")->type_name("PROGRAM");
  command.add_option("--day", options.day, "The day to show, YYYY-MM-DD; default: today")
      ->type_name("DAY")
      ->check(checkDay);
}

}  // namespace

const char* levelMeaning(int level) {
  if (level >= tavrin::debugLevel) return "everything";
  return level == tavrin::errorLevel ? "errors" : "nothing";
}

std::string levelText(int level) { return std::to_string(level) + " (" + levelMeaning(level) + ")"; }

void addLogCommands(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App& log = *app.add_subcommand("log", "Shows the module's log, and sets the log level.");
  log.require_subcommand(0, 1);
  addShowOptions(log, *options);
  // Called for the subcommands too, after theirs.
  log.callback([&log, options, &action] {
    if (log.get_subcommands().empty()) action = [options] { return show(*options); };
  });

  CLI::App& shown = *log.add_subcommand("show", "Shows the log; the same as log alone.");
  addShowOptions(shown, *options);
  shown.callback([options, &action] { action = [options] { return show(*options); }; });

  CLI::App& levels = *log.add_subcommand("level", "Shows or sets the log level of this machine.");
  levels.add_option("LEVEL", options->level, "0 and 1: nothing, 2: errors, 3: everything")
      ->type_name("")
      ->check(CLI::Range(0, tavrin::debugLevel));
  levels.add_flag("--json", options->json, "Print JSON");
  levels.callback([options, &action] { action = [options] { return level(*options); }; });
}

}  // namespace tool
