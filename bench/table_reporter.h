// Prints the medians of all benchmarks as one table, with the ratio of each pair.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// A benchmark that compares gives the counters "direct" and "longer", which the module's way takes more, in
// microseconds; of any other the time is shown.
class TableReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  struct Row {
    std::string what;
    double module = 0;
    double direct = 0;
  };
  // By the place of the benchmark in the program, as they run in mixed order.
  std::map<std::pair<std::int64_t, std::int64_t>, Row> rows_;
};

}  // namespace bench
