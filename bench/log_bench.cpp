// What a log line costs, beside one plain append to a file.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "bench/bench_token.h"

namespace bench {
namespace {

using benchmark::State;

// An unsupported function writes one debug line and does nothing else.
void oneDebugLine(State& state, int level) {
  surroundings().setLogLevel(level);
  for (auto _ : state) C_CancelFunction(0);
  surroundings().setLogLevel(2);
}

void debugLineWritten(State& state) { oneDebugLine(state, 3); }
void debugLineLeftOut(State& state) { oneDebugLine(state, 2); }

void errorLineWritten(State& state) {
  for (auto _ : state) C_GetFunctionList(nullptr);
}

void plainAppend(State& state) {
  const std::string path = (surroundings().folder() / "plain.log").string();
  const std::string line = "21/11::10:00:00:000-> ->DEBUG ::=>C_CancelFunction\n";
  for (auto _ : state) {
    const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    require(file >= 0 && write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size()), "appending");
    close(file);
  }
}

BENCHMARK(debugLineLeftOut)->Name("debug line at level 2 (left out):module");
BENCHMARK(debugLineWritten)->Name("debug line at level 3:module");
BENCHMARK(plainAppend)->Name("debug line at level 3:direct");
BENCHMARK(errorLineWritten)->Name("error line at level 2:module");

}  // namespace
}  // namespace bench
