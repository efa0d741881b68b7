#include "tool/log_commands.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <thread>

#include "log/log.h"
#include "softtoken/platform.h"
#include "tool/command_line.h"
#include "tool/console.h"
#include "tool/json.h"
#include "tool/log_files.h"
#include "tool/log_level.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr auto pollInterval = std::chrono::milliseconds(200);

struct Wish {
  std::string day;  // empty: today, whatever day that has become
  std::string program;
  std::string text;
  bool errorsOnly = false;
};

std::string checkedDay(const std::string& day) {
  constexpr std::string_view pattern = "0000-00-00";
  const bool fits = std::ranges::equal(day, pattern, [](char letter, char expected) {
    return expected == '0' ? letter >= '0' && letter <= '9' : letter == expected;
  });
  if (!day.empty() && !fits) throw UsageError("--day takes a day as YYYY-MM-DD, not " + day);
  return day;
}

std::vector<LogFile> wantedFiles(const Wish& wish) {
  std::vector<LogFile> files = logFilesOf(wish.day.empty() ? today() : wish.day);
  if (!wish.program.empty()) std::erase_if(files, [&](const LogFile& file) { return file.program != wish.program; });
  return files;
}

bool wanted(const LogEntry& entry, const Wish& wish) {
  if (wish.errorsOnly && entry.kind != LineKind::error) return false;
  return entry.text.find(wish.text) != std::string::npos;
}

const char* colourOf(LineKind kind) {
  if (kind == LineKind::error) return "\x1B[31m";
  return kind == LineKind::debug ? "\x1B[2m" : "";
}

void print(const std::vector<LogEntry>& entries, const Wish& wish, bool coloured) {
  for (const LogEntry& entry : entries) {
    if (!wanted(entry, wish)) continue;
    const std::string line = printable((wish.program.empty() ? entry.program + " | " : "") + entry.text);
    const char* colour = coloured ? colourOf(entry.kind) : "";
    std::cout << colour << line << (*colour != '\0' ? "\x1B[0m" : "") << '\n';
  }
  std::cout.flush();
}

void explainNothing(const Wish& wish) {
  std::cerr << "There is no log of " << (wish.day.empty() ? "today" : wish.day)
            << (wish.program.empty() ? "" : " by " + wish.program) << " in " << softtoken::textOf(logFolder())
            << "; the log level is " << levelText(tavrin::getLogLevel()) << '\n';
}

// The module cuts the program's file name there too.
std::string untilPoint(const std::string& name) { return name.substr(0, name.find('.')); }

int show(const std::vector<std::string>& words) {
  constexpr OptionRow options[] = {
      {"follow", false}, {"errors", false}, {"grep", true}, {"program", true}, {"day", true}};
  const Arguments arguments = parseArguments("log show", words, options);
  if (!arguments.words.empty()) throw UsageError("there is no command log " + arguments.words[0]);
  const Wish wish{checkedDay(arguments.value("day")), untilPoint(arguments.value("program")), arguments.value("grep"),
                  arguments.has("errors")};
  const bool coloured = outputTakesColour();
  const bool follow = arguments.has("follow");
  LogReader reader;
  const std::vector<LogFile> files = wantedFiles(wish);
  if (files.empty()) explainNothing(wish);
  print(reader.newEntries(files), wish, coloured);
  while (follow && std::cout) {
    std::this_thread::sleep_for(pollInterval);
    print(reader.newEntries(wantedFiles(wish)), wish, coloured);
  }
  return 0;
}

int level(const std::vector<std::string>& words) {
  constexpr OptionRow options[] = {{"json", false}};
  const Arguments arguments = parseArguments("log level", words, options);
  if (arguments.words.size() > 1) throw UsageError("log level takes one number");
  if (!arguments.words.empty()) {
    const std::string& wish = arguments.words[0];
    if (wish.size() != 1 || wish[0] < '0' || wish[0] > '0' + tavrin::debugLevel)
      throw UsageError("the log level is a number from 0 to 3, not " + wish);
    setLogLevel(wish[0] - '0');
  }
  const int now = tavrin::getLogLevel();
  if (arguments.has("json")) {
    std::cout << Json(Json::Object{{"level", now}, {"meaning", levelMeaning(now)}}).text() << '\n';
  } else {
    std::cout << "The log level is " << levelText(now) << '\n';
  }
  return 0;
}

}  // namespace

const char* const logUsage =
    "  tavrin-tool log [show] [--follow] [--errors] [--grep TEXT] [--program NAME]\n"
    "                         [--day YYYY-MM-DD]\n"
    "  tavrin-tool log level [0|1|2|3] [--json]\n";

const char* levelMeaning(int level) {
  if (level >= tavrin::debugLevel) return "everything";
  return level == tavrin::errorLevel ? "errors" : "nothing";
}

std::string levelText(int level) { return std::to_string(level) + " (" + levelMeaning(level) + ")"; }

int runLogCommand(const std::vector<std::string>& words) {
  const std::vector<std::string> rest(words.begin() + (words.empty() ? 0 : 1), words.end());
  if (!words.empty() && words[0] == "level") return level(rest);
  return show(!words.empty() && words[0] == "show" ? rest : words);
}

}  // namespace tool
