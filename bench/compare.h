// Compares the times of two ways to do the same work.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <utility>
#include <vector>

namespace bench {

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The processor time of the calling thread: other programs do not count, but neither does waiting.
struct CpuClock {
  using duration = std::chrono::nanoseconds;
  static duration now() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + duration(time.tv_nsec);
  }
};

// Times both ways alternately. Reports the median of the direct way, and the median of the differences between
// neighbours: other work of the machine slows down both of two neighbours.
template <typename Clock = std::chrono::steady_clock, typename Module, typename Direct>
void compare(benchmark::State& state, Module throughModule, Direct directly) {
  const auto timed = [](const auto& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
  };
  throughModule();  // not timed: the first call does more
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
