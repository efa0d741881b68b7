// Prints the medians of all benchmarks as one table, with the ratio of each pair.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

// A name "WHAT:module" is paired with "WHAT:direct". Times are in microseconds.
class TableReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  struct Row {
    double module = 0;
    double direct = 0;
  };
  std::vector<std::string> order_;
  std::map<std::string, Row> rows_;
};

}  // namespace bench
