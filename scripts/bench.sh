#!/usr/bin/env bash
# Builds the benchmarks and prints one table: every kind of call through the module beside the device library alone.
# Arguments go to Google Benchmark, for example --benchmark_filter=sign.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/bench
cmake --preset linux -B "$build" -DTAVRIN_BUILD_BENCHMARKS=ON -DTAVRIN_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target module_bench -- -j"$(nproc)" >/dev/null
exec "$build/bin/module_bench" "$@"
