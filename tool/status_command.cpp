#include "tool/status_command.h"

#include <chrono>
#include <iostream>
#include <memory>
#include <thread>

#include "softtoken/failure.h"
#include "softtoken/platform.h"
#include "tool/command_line.h"
#include "tool/console.h"
#include "tool/status_report.h"

namespace tool {
namespace {

struct StatusOptions {
  std::string module;
  bool json = false;
  bool watch = false;
};

std::filesystem::path moduleOf(const StatusOptions& options) {
  return options.module.empty() ? defaultModule() : softtoken::pathOf(options.module);
}

int show(const StatusOptions& options) {
  SystemStatus status;
  gatherStatus(moduleOf(options), false, status);
  std::cout << (options.json ? jsonReport(status) : textReport(status));
  return status.exitCode();
}

// Shows the status again after each change, until the output fails or the process is ended.
int watch(const StatusOptions& options) {
  if (!outputIsTerminal()) throw softtoken::Failure(softtoken::Status::badArgument, "--watch needs a terminal");
  outputTakesColour();  // makes Windows' console understand the sequence below
  constexpr auto interval = std::chrono::seconds(1);
  for (std::string shown; std::cout.flush(); std::this_thread::sleep_for(interval)) {
    SystemStatus status;
    gatherStatus(moduleOf(options), false, status);
    const std::string text = textReport(status);
    if (text != shown) std::cout << "\x1B[H\x1B[2J" << text;
    shown = text;
  }
  return 0;
}

}  // namespace

void addStatusCommand(const Command& program) {
  const auto options = std::make_shared<StatusOptions>();
  const Command command = program.add("status", "Shows what applications would find, and what is wrong.");
  command.option("--module FILE", options->module, "The module to load; default: the installed one");
  command.flag("--json", options->json, "Print JSON");
  command.flag("--watch", options->watch, "Show it again when tokens come and go");
  command.exclude("--watch", "--json");
  command.footer("It needs no password and costs no password try.\n");
  command.run([options] { return options->watch ? watch(*options) : show(*options); });
}

}  // namespace tool
