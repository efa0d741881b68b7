#include "tool/report_command.h"

#include <fstream>
#include <iostream>

#include "log/log_format.h"
#include "softtoken/failure.h"
#include "softtoken/platform.h"
#include "tool/command_line.h"
#include "tool/report_page.h"
#include "tool/text.h"

namespace tool {
namespace {

struct ReportOptions {
  std::string file;
  std::string module;
  std::string log;      // a log file; empty: this machine's
  std::string program;  // empty: all
  std::string day;      // empty: today
  bool anonymous = false;
};

std::vector<LogFile> filesOf(const ReportOptions& options) {
  if (!options.log.empty()) return {logFileAt(softtoken::pathOf(options.log))};
  std::vector<LogFile> files = logFilesOf(options.day.empty() ? today() : options.day);
  const std::string_view program = tavrin::logProgramName(options.program);
  if (!program.empty()) std::erase_if(files, [&](const LogFile& file) { return file.program != program; });
  return files;
}

int report(const ReportOptions& options) {
  const std::vector<LogFile> files = filesOf(options);
  SystemStatus status;
  gatherStatus(options.module.empty() ? defaultModule() : softtoken::pathOf(options.module), options.anonymous, status);
  ReportPage page(status, options.anonymous);
  const auto takeCall = [&](const LoggedCall& call) { page.add(call); };
  CallCollector calls;
  std::size_t lines = 0;
  LogReader().read(files, [&](const LogEntry& entry) {
    ++lines;
    calls.add(entry, takeCall);
  });
  calls.flush(takeCall);
  std::ofstream stream(softtoken::pathOf(options.file), std::ios::binary);
  stream << page.finish();
  if (!stream.flush()) throw softtoken::Failure(softtoken::Status::badArgument, "cannot write " + options.file);
  std::cout << "wrote " << printable(options.file) << ": " << lines << " log lines, " << page.refusals()
            << " refusals, " << status.problems.size() + status.warnings.size() << " findings\n";
  return 0;
}

}  // namespace

void addReportCommand(const Command& program) {
  const auto options = std::make_shared<ReportOptions>();
  const Command command = program.add("report", "Writes status and log to an HTML page for support.");
  command.requiredArgument("FILE", options->file, "The page to write");
  command.option("--module FILE", options->module, "The module to load; default: the installed one");
  command.option("--log FILE", options->log, "A log file to show in place of today's");
  command.option("--program,-p PROGRAM", options->program, "Show one program's log only");
  command.option("--day DAY", options->day, "The log's day, YYYY-MM-DD; default: today");
  command.flag("--private", options->anonymous, "Leave out labels, names and digests");
  command.run([options] { return report(*options); });
}

}  // namespace tool
