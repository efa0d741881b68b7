#!/bin/bash
# Builds everything for every target and runs all tests: scripts/test.sh [STEP ...]
# Steps: format, linux, bench, linux-asan, linux-tsan, fuzz, windows, clients, desktop, tidy, reproducible; all by default, in this
# order. The last line counts the tests of all targets, each of the other steps being one; the exit code is 0 if none
# failed.
set -euo pipefail
exec </dev/null
cd "$(dirname "$0")/.."
top=$PWD
logs=$top/build/test-logs
jobs=$(nproc)
passed=0
failed=0

say() { printf '%s\n' "$*"; }

# attempt WHAT LOG COMMAND...: one step that counts as one test; the log is shown when it fails.
attempt() {
  local what=$1 log=$logs/$2 start=$SECONDS
  shift 2
  if "$@" >"$log" 2>&1; then
    passed=$((passed + 1))
    say "   ok: $what ($((SECONDS - start)) s)"
    return 0
  fi
  failed=$((failed + 1))
  tail -n 200 "$log"
  say "   FAILED: $what; the whole output is in ${log#"$top"/}"
  return 1
}

build() {
  cmake --preset "$1" && cmake --build --preset "$1" --parallel "$jobs"
}

# Adds up a report of ctest: the cases that a GoogleTest program printed, one for any other test, whose name has a point.
# A test that failed without naming a case counts as a failed one, and so does a program that stopped on its way or did
# not start: Wine has answered 0 for both. Prints "passed failed".
countCases() {
  awk '/<testcase / {good = /status="run"/; program = !/name="[^"]*\./; ok = bad = underway = 0}
       /^\[=+\] Running / || /<system-out>.*\[=+\] Running / {underway = 1}
       /^\[ +OK \] / {++ok}
       /^\[ +FAILED +\] .*\([0-9]+ ms\)/ {++bad}
       /^\[ +PASSED +\] / {underway = 0}
       /<\/testcase>/ {if (!bad && (!good || underway || (program && !ok))) bad = 1
                        passed += ok || bad ? ok : 1; failed += bad}
       END {print passed + 0, failed + 0}' "$1"
}

# runTests PRESET [WRAPPER...]
runTests() {
  local preset=$1 report=$logs/$1.xml log=$logs/$1-tests.log start=$SECONDS status=0 good=0 bad=0
  shift
  rm -f "$report"
  "$@" ctest --preset "$preset" --parallel "$jobs" --output-junit "$report" --test-output-size-passed 1000000 \
    --quiet --output-log "$log" || status=$?
  [[ ! -s $report ]] || read -r good bad < <(countCases "$report")
  [[ $status -eq 0 || $bad -gt 0 ]] || bad=1
  passed=$((passed + good))
  failed=$((failed + bad))
  say "   $good tests passed, $bad failed ($((SECONDS - start)) s)"
  [[ $bad -gt 0 ]] || return 0
  grep -E -B 40 '^\[ +FAILED|FAILED:|\*\*\*Failed|\*\*\*Timeout' "$log" | tail -n 200 || true
  say "   FAILED; the whole output is in ${log#"$top"/}"
}

buildAndTest() {
  say "== $1: build and test"
  attempt "build" "$1-build.log" build "$1" && runTests "$@"
}

# runClients GROUP: "clients" needs the builds for linux and windows, "desktop" that for linux.
runClients() {
  local log=$logs/$1.log start=$SECONDS good=0 bad=0
  mkdir -p build/windows
  tests/clients/run.sh build/linux build/windows "$1" >"$log" 2>&1 || true
  sed 's/^/   /' "$log"
  read -r good bad < <(sed -nE '$s/^([0-9]+) passed, ([0-9]+) failed$/\1 \2/p' "$log") || bad=1
  passed=$((passed + good))
  failed=$((failed + bad))
  say "   $good checks passed, $bad failed ($((SECONDS - start)) s)"
}

checkFormat() {
  find . \( -path ./build -o -path ./.git \) -prune -o \( -name '*.cpp' -o -name '*.h' \) -print0 |
    xargs -0 clang-format --dry-run --Werror
}

# The module's sources are built for two ABIs; looking at them in that of Windows is enough.
checkTidy() {
  cmake --preset linux && mkdir -p build/tidy &&
    jq 'map(select(.command | contains("tavrin_module_native.dir") | not))' build/linux/compile_commands.json \
      >build/tidy/compile_commands.json &&
    run-clang-tidy -quiet -p build/tidy -j "$jobs" "^$top/(src|softtoken|tool|examples)/"
}

# Builds both libraries for Windows once more, from a copy that lies elsewhere, and compares the files.
checkReproducible() {
  local copy=$top/build/reproducible/a-copy-that-lies-elsewhere library
  rm -rf "$copy" && mkdir -p "$copy" &&
    tar -c --exclude=./build --exclude=./.git . | tar -x -C "$copy" &&
    (cd "$copy" && cmake --preset windows -DTAVRIN_BUILD_TESTS=OFF &&
      cmake --build --preset windows --parallel "$jobs" --target TavrinPKCS11 TavrinDSCLibrary) || return 1
  for library in TavrinPKCS11.dll TavrinDSCLibrary.dll; do
    cmp "$copy/build/windows/bin/$library" "build/windows/bin/$library" || return 1
  done
  rm -rf build/reproducible
}

step() {
  case $1 in
    format)
      say "== format: all sources are as clang-format writes them"
      attempt "format" format.log checkFormat
      ;;
    linux | linux-asan)
      buildAndTest "$1"
      ;;
    bench)
      # Only to see that they run; scripts/bench.sh takes longer and is surer.
      say "== bench: a short run of the benchmarks"
      attempt "bench" bench.log scripts/bench.sh --benchmark_repetitions=3 --benchmark_min_time=0.02 &&
        sed 's/^/   /' "$logs/bench.log"
      ;;
    linux-tsan)
      # ThreadSanitizer needs addresses that some kernels randomise too widely; leave that off where it can be.
      if setarch -R true 2>/dev/null; then buildAndTest "$1" setarch -R; else buildAndTest "$1"; fi
      ;;
    fuzz)
      say "== fuzz: a short run of each target"
      attempt "fuzz" fuzz.log scripts/fuzz.sh && sed 's/^/   /' "$logs/fuzz.log"
      ;;
    windows)
      scripts/wine.sh wineboot -i >/dev/null 2>&1 || true # once, so that no test waits for it
      buildAndTest "$1"
      ;;
    clients)
      say "== clients: real clients, the packages, and the commands of the guides"
      runClients clients
      ;;
    desktop)
      say "== desktop: browsers and other programs of a user's desktop"
      runClients desktop
      ;;
    tidy)
      say "== tidy: clang-tidy has nothing to say"
      attempt "tidy" tidy.log checkTidy
      ;;
    reproducible)
      say "== reproducible: another checkout gives the same DLLs"
      attempt "reproducible" reproducible.log checkReproducible
      ;;
    *)
      say "unknown step '$1'; there are: format linux bench linux-asan linux-tsan fuzz windows clients desktop tidy reproducible" >&2
      exit 2
      ;;
  esac
}

scripts/setup.sh --clients
mkdir -p "$logs"
export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=second_deadlock_stack=1
steps=("$@")
[[ $# -gt 0 ]] || steps=(format linux bench linux-asan linux-tsan fuzz windows clients desktop tidy reproducible)
for name in "${steps[@]}"; do
  step "$name" || true
done

say "== finished after $((SECONDS / 60)) min $((SECONDS % 60)) s"
say "$passed passed, $failed failed"
[[ $failed -eq 0 ]]
