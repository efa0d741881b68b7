// Prints the medians of all benchmarks as one table, with the ratio of each pair.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// A comparing benchmark has the counters "direct" and "longer", the time that the module's way takes in addition, both
// in microseconds. For any other benchmark the table shows its time.
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
  // Sorted by position in the program, because benchmarks run in mixed order.
  std::map<std::pair<std::int64_t, std::int64_t>, Row> rows_;
};

}  // namespace bench
