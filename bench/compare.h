// Two ways to the same end, timed beside each other.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

namespace bench {

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Times both ways in turn and reports the median of the direct way and that of what the module's way takes longer than
// its neighbour: what else the machine does meets two neighbours alike.
template <typename Module, typename Direct>
void compare(benchmark::State& state, Module throughModule, Direct directly) {
  using Clock = std::chrono::steady_clock;
  const auto timed = [](const auto& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
  };
  throughModule();  // the first time is another matter
  directly();
  std::vector<double> direct;
  std::vector<double> longer;
  bool moduleFirst = false;
  for (auto _ : state) {
    moduleFirst = !moduleFirst;
    const double before = moduleFirst ? timed(throughModule) : 0;
    direct.push_back(timed(directly));
    const double through = moduleFirst ? before : timed(throughModule);
    longer.push_back(through - direct.back());
  }
  state.counters["direct"] = median(std::move(direct));
  state.counters["longer"] = median(std::move(longer));
}

}  // namespace bench
