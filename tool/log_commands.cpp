#include "tool/log_commands.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <iostream>
#include <thread>

#include "log/log.h"
#include "log/log_format.h"
#include "softtoken/platform.h"
#include "tool/catalogue.h"
#include "tool/command_line.h"
#include "tool/console.h"
#include "tool/json.h"
#include "tool/log_calls.h"
#include "tool/log_files.h"
#include "tool/log_level.h"
#include "tool/log_names.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr auto pollInterval = std::chrono::milliseconds(200);

struct LogOptions {
  std::string file;     // a log file, such as one from another machine; empty: this machine's logs
  std::string day;      // empty: today, also after midnight
  std::string program;  // empty: all
  std::string since;    // HH:MM or HH:MM:SS; empty: the whole day
  std::string text;
  bool ignoreCase = false;
  bool errorsOnly = false;
  std::uint64_t last = 0;  // the number of lines to show; 0: all
  bool follow = false;
  bool names = false;
  bool explain = false;
  bool calls = false;
  bool listPrograms = false;
  int level = -1;
  bool json = false;
};

std::string checkDay(const std::string& day) {
  return matchesDigits(day, "0000-00-00") ? "" : "takes a day as YYYY-MM-DD, not " + day;
}

std::string checkTime(const std::string& time) {
  return matchesDigits(time, "00:00") || matchesDigits(time, "00:00:00")
             ? ""
             : "takes a time as HH:MM or HH:MM:SS, not " + time;
}

std::vector<LogFile> allFiles(const LogOptions& options) {
  if (!options.file.empty()) return {logFileAt(softtoken::pathOf(options.file))};
  return logFilesOf(options.day.empty() ? today() : options.day);
}

std::vector<LogFile> wantedFiles(const LogOptions& options) {
  std::vector<LogFile> files = allFiles(options);
  if (!options.program.empty())
    std::erase_if(files, [&](const LogFile& file) { return file.program != options.program; });
  return files;
}

bool holds(const std::string& line, const LogOptions& options) {
  if (!options.ignoreCase) return line.find(options.text) != std::string::npos;
  const auto same = [](char one, char other) { return softtoken::lower(one) == softtoken::lower(other); };
  return options.text.empty() ||
         std::search(line.begin(), line.end(), options.text.begin(), options.text.end(), same) != line.end();
}

bool wanted(const LogEntry& entry, const LogOptions& options) {
  constexpr std::size_t clock = tavrin::LogPlace::hour;
  if (options.errorsOnly && entry.kind != LineKind::error) return false;
  if (!options.since.empty() && (entry.time.size() < clock || entry.time.substr(clock) < options.since)) return false;
  return holds(entry.text, options);
}

// What is printed of an entry or a call.
struct Output {
  std::string text;
  LineKind kind;
};

const char* colourOf(LineKind kind) {
  if (kind == LineKind::error) return "\x1B[31m";
  return kind == LineKind::debug ? "\x1B[2m" : "";
}

class Printer {
 public:
  explicit Printer(const LogOptions& options)
      : options_(options), coloured_(outputTakesColour()), prefixed_(options.program.empty() && options.file.empty()) {}

  void add(const LogEntry& entry) {
    if (!wanted(entry, options_)) return;
    if (options_.calls) return calls_.add(entry, [this](const LoggedCall& call) { addCall(call); });
    put({prefixOf(entry.program) + (options_.names ? withNames(entry.text) : entry.text), entry.kind});
    if (entry.kind == LineKind::error) addExplanation(messageIn(entry.text));
  }

  // Prints the lines that were kept for --last or --calls.
  void finish() {
    calls_.flush([this](const LoggedCall& call) { addCall(call); });
    for (const Output& line : held_) print(line);
    held_.clear();
    holding_ = false;
  }

 private:
  std::string prefixOf(const std::string& program) const { return prefixed_ ? program + " | " : ""; }

  void addCall(const LoggedCall& call) {
    std::string text = prefixOf(call.program) + clockText(call.start) + "  " + (call.name.empty() ? "-" : call.name);
    if (call.end > call.start) text += "  " + std::to_string(call.end - call.start) + " ms";
    const bool refused = call.refused();
    for (const CallLine& line : call.lines)
      if (line.refusal || call.name.empty()) text += "  " + withNames(line.message);
    put({text, refused ? LineKind::error : LineKind::debug});
    for (const CallLine& line : call.lines)
      if (line.refusal) addExplanation(line.message);
  }

  void addExplanation(std::string_view message) {
    if (!options_.explain) return;
    const Explanation* found = explanationOf(message);
    if (!found) return;
    put({"    " + std::string(found->meaning), LineKind::other});
    put({"    " + std::string(found->remedy), LineKind::other});
  }

  void put(const Output& line) {
    if (options_.last == 0 || !holding_) return print(line);
    held_.push_back(line);
    if (held_.size() > options_.last) held_.pop_front();
  }

  void print(const Output& line) const {
    const char* colour = coloured_ ? colourOf(line.kind) : "";
    std::cout << colour << printable(line.text) << (*colour != '\0' ? "\x1B[0m" : "") << '\n';
  }

  const LogOptions& options_;
  const bool coloured_;
  const bool prefixed_;  // lines begin with the program's name, as there may be several programs
  CallCollector calls_;
  std::deque<Output> held_;
  bool holding_ = true;
};

std::string namesOf(const std::vector<LogFile>& files) {
  std::string names;
  for (const LogFile& file : files) names += (names.empty() ? "" : ", ") + file.program;
  return names;
}

void explainNothing(const LogOptions& options) {
  std::string text = "There is no log of " + (options.day.empty() ? "today" : options.day) +
                     (options.program.empty() ? "" : " by " + options.program) + " in " +
                     softtoken::textOf(logFolder()) + "; the log level is " + levelText(tavrin::getLogLevel());
  if (const std::string others = namesOf(allFiles(options)); !others.empty()) text += "; there are logs by " + others;
  std::cerr << printable(text) << '\n';
}

int listPrograms(const LogOptions& options) {
  const std::vector<LogFile> files = allFiles(options);
  if (files.empty()) explainNothing(options);
  for (const LogFile& file : files) std::cout << printable(file.program) << '\n';
  return 0;
}

int show(LogOptions& options) {
  if (options.listPrograms) return listPrograms(options);
  options.program = std::string(tavrin::logProgramName(options.program));
  Printer printer(options);
  const auto take = [&](const LogEntry& entry) { printer.add(entry); };
  LogReader reader;
  const std::vector<LogFile> files = wantedFiles(options);
  if (files.empty()) explainNothing(options);
  reader.read(files, take);
  printer.finish();
  while (options.follow && std::cout.flush()) {
    std::this_thread::sleep_for(pollInterval);
    reader.read(wantedFiles(options), take);
    printer.finish();
  }
  return 0;
}

int level(const LogOptions& options) {
  if (options.level >= 0) setLogLevel(options.level);
  const int now = tavrin::getLogLevel();
  if (options.json) {
    std::cout << Json(Json::Object{{"level", now}, {"meaning", levelMeaning(now)}}).text() << '\n';
  } else {
    std::cout << "The log level is " << levelText(now) << '\n';
  }
  return 0;
}

void addShowOptions(const Command& command, LogOptions& options) {
  command.argument("FILE", options.file, "A log file to show, such as one sent to support");
  command.flag("--follow,-f", options.follow, "Wait for new lines and show them");
  command.flag("--errors,-e", options.errorsOnly, "Show refusals and failures only");
  command.option("--grep,-g TEXT", options.text, "Show lines with this text only");
  command.flag("--ignore-case,-i", options.ignoreCase, "Ignore the case of letters in --grep");
  command.option("--since TIME", options.since, "Begin at this time, HH:MM or HH:MM:SS", checkTime);
  command.option("--last,-n NUMBER", options.last, "Show the last lines only");
  const auto takeProgram = [&options](const std::string& name) {
    options.program = name;
    options.listPrograms = name.empty();
  };
  command.option("--program,-p PROGRAM", takeProgram, "Show one program only; without NAME: list them");
  command.option("--day DAY", options.day, "The day to show, YYYY-MM-DD; default: today", checkDay);
  command.flag("--names", options.names, "Add names to statuses, mechanisms and types");
  command.flag("--explain", options.explain, "Explain each refusal and say what to do");
  command.flag("--calls", options.calls, "Show a line for each call, with the time it took");
}

}  // namespace

void addLogCommands(const Command& program) {
  const auto options = std::make_shared<LogOptions>();
  const Command log = program.add("log", "Shows the module's log, and sets the log level.");
  const Command shown = log.add("show", "Shows the log; the same as log alone.");
  for (const Command& command : {log, shown}) {
    addShowOptions(command, *options);
    command.run([options] { return show(*options); });
  }
  const Command levels = log.add("level", "Shows or sets the log level of this machine.");
  levels.argument("LEVEL", options->level, tavrin::debugLevel, "0 and 1: nothing, 2: errors, 3: everything");
  levels.flag("--json", options->json, "Print JSON");
  levels.run([options] { return level(*options); });
}

}  // namespace tool
