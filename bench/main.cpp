// Runs the benchmarks, each several times and in mixed order, and prints one table. Accepts Google Benchmark's options
// too, for example --benchmark_filter=sign.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/table_reporter.h"

int main(int argc, char** argv) {
  static char repetitions[] = "--benchmark_repetitions=9";
  static char interleaving[] = "--benchmark_enable_random_interleaving=true";
  static char shortRuns[] = "--benchmark_min_time=0.1";
  std::vector<char*> arguments(argv, argv + argc);
  arguments.insert(arguments.begin() + 1, {repetitions, interleaving, shortRuns});
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  bench::TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
}
