#include "bench/table_reporter.h"

#include <cstdio>

namespace bench {

bool TableReporter::ReportContext(const Context& context) {
  std::printf("%d CPUs at %.0f MHz, %s\n", context.cpu_info.num_cpus, context.cpu_info.cycles_per_second / 1e6,
              context.sys_info.name.c_str());
  return true;
}

void TableReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.aggregate_name != "median") continue;
    // The full name is the name, then the arguments of a family, then the settings of the run.
    std::string name = run.run_name.function_name;
    if (!run.run_name.args.empty()) name += " (N = " + run.run_name.args + ")";
    Row& row = rows_[{run.family_index, run.per_family_instance_index}];
    row.what = name;
    const auto direct = run.counters.find("direct");
    if (direct == run.counters.end()) {
      row.module = run.real_accumulated_time / static_cast<double>(run.iterations) * 1e6;
    } else {
      row.direct = direct->second.value;
      row.module = row.direct + run.counters.at("longer").value;
    }
  }
}

void TableReporter::Finalize() {
  std::printf("\n%-58s %14s %14s %8s\n", "median of each, in microseconds", "through module", "direct", "ratio");
  for (const auto& [place, row] : rows_) {
    std::printf("%-58s %14.2f", row.what.c_str(), row.module);
    if (row.direct > 0) std::printf(" %14.2f %8.3f", row.direct, row.module / row.direct);
    std::printf("\n");
  }
}

}  // namespace bench
