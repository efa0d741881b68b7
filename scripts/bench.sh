#!/usr/bin/env bash
# Builds the benchmarks and prints one table. It compares calls through the module with the device library alone, and calls
# through the standard module with the module. Arguments go to Google Benchmark, for example --benchmark_filter=sign.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset linux -DTAVRIN_BUILD_BENCHMARKS=ON >/dev/null
cmake --build --preset linux --parallel "$(nproc)" --target module_bench >/dev/null
exec build/linux/bin/module_bench "$@"
