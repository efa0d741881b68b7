// The time of a log line, compared with that of a plain append to a file.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench/bench_token.h"
#include "bench/compare.h"
#include "log/log_location.h"

namespace bench {
namespace {

using benchmark::State;

// An unsupported function writes one debug line and does nothing else.
void debugLineLeftOut(State& state) {
  for (auto _ : state) C_CancelFunction(0);
}

void debugLineLeftOutByValue(State& state) {
  const LogLevel level(surroundings(), 2);
  debugLineLeftOut(state);
}

// Opens, appends to and closes a file in the folder of the log, because the length of the path matters.
class PlainAppend {
 public:
  PlainAppend()
      : path_((surroundings().folder() / "temporary" / tavrin::logFolderName / "module_bench/plain.log").string()) {
    C_GetFunctionList(nullptr);  // logs the first error, which makes the folder
  }
  void operator()() const {
    const int file = open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    require(file >= 0 && write(file, line_.data(), line_.size()) == static_cast<ssize_t>(line_.size()), "appending");
    close(file);
  }

 private:
  const std::string path_;
  const std::string line_ = "21/11::10:00:00:000-> ->DEBUG ::=>C_CancelFunction\n";
};

void debugLineAlone(State& state) {
  const PlainAppend append;
  const LogLevel level(surroundings(), 3);
  compare(
      state, [] { C_CancelFunction(0); }, append);
}

// The three lines of a call that returns no object of a search: name, total and count.
void debugLinesOfOneCall(State& state) {
  C_FindObjectsInit(session(), nullptr, 0);
  std::vector<CK_OBJECT_HANDLE> found(1000);
  CK_ULONG count = 0;
  C_FindObjects(session(), found.data(), static_cast<CK_ULONG>(found.size()), &count);
  const PlainAppend append;
  const LogLevel level(surroundings(), 3);
  compare(
      state, [&] { C_FindObjects(session(), found.data(), 1, &count); },
      [&] {
        for (int i = 0; i < 3; ++i) append();
      });
  C_FindObjectsFinal(session());
}

void errorLineWritten(State& state) {
  for (auto _ : state) C_GetFunctionList(nullptr);
}

// The system calls that find that no level is set, and the state of a token's file. They take most of the time of all
// calls that only read the token's records.
void levelLookedFor(State& state) {
  const std::string path = levelFile(surroundings().folder() / "registry").string();
  struct stat status;
  for (auto _ : state) benchmark::DoNotOptimize(stat(path.c_str(), &status));
}

void tokenLookedAt(State& state) {
  token();
  const std::string path = (surroundings().folder() / "tokens/bench/token").string();
  struct stat status;
  for (auto _ : state) benchmark::DoNotOptimize(stat(path.c_str(), &status));
}

BENCHMARK(debugLineLeftOut)->Name("debug line left out, no level set");
BENCHMARK(debugLineLeftOutByValue)->Name("debug line left out, level set to 2");
BENCHMARK(debugLineAlone)->Name("debug line at level 3, beside one append to a file");
BENCHMARK(debugLinesOfOneCall)->Name("three debug lines of a call, beside three appends");
BENCHMARK(errorLineWritten)->Name("error line at level 2");
BENCHMARK(levelLookedFor)->Name("the system's answer: no level file");
BENCHMARK(tokenLookedAt)->Name("the system's answer: state of the token's file");

}  // namespace
}  // namespace bench
