#!/bin/bash
# Builds everything for every target and runs all tests: scripts/test.sh [quick | STEP ...]
# Steps: format linux windows linux-asan linux-tsan tidy reproducible bench package clients desktop fuzz; all by
# default.
# "quick" is format and linux. It does not run the tests again if they passed and no file has changed since.
# Builds and checks run one after another. At the same time, the tests of finished builds run. These take longer as a
# whole, so builds have a lower priority. The last line counts the tests of all targets; each build and each other check
# counts as one. The exit code is 0 if none failed.
set -euo pipefail
exec </dev/null
cd "$(dirname "$0")/.."
top=$PWD
logs=$top/build/test-logs
jobs=$(nproc)
passed=0
failed=0
builds=(linux windows linux-asan linux-tsan)
checks=(format tidy reproducible)
runs=(bench package clients desktop fuzz)

say() { printf '%s\n' "$*"; }

# count PASSED FAILED: adds to the totals.
count() {
  passed=$((passed + $1))
  failed=$((failed + $2))
}

has() { # NAME LIST...
  local item
  for item in "${@:2}"; do [[ $item != "$1" ]] || return 0; done
  return 1
}

# measured LOG COMMAND...: runs the command with its output in the log. Sets `took` to its wall-clock and CPU seconds.
measured() {
  local log=$1 start=$SECONDS status=0
  shift
  TIMEFORMAT='%U %S'
  { time "$@" >"$log" 2>&1; } 2>"$log.time" || status=$?
  took="$((SECONDS - start)) s, $(awk '{printf "%.0f", $1 + $2}' "$log.time") s of CPU"
  rm -f "$log.time"
  return $status
}

# report NAME WHAT STATUS TOOK: a build, check or run that counts as one test; its log is shown when it failed.
report() {
  if [[ $3 == 0 ]]; then
    count 1 0
    say "== $1: $2 ok ($4)"
    return 0
  fi
  count 0 1
  tail -n 200 "$logs/$1.log" || true
  say "== $1: $2 FAILED ($4); the whole output is in build/test-logs/$1.log"
  return 1
}

build() {
  local targets=(all)
  [[ $1 != linux-asan ]] || targets=(all fuzz_targets)
  cmake --preset "$1" && cmake --build --preset "$1" --parallel "$jobs" --target "${targets[@]}"
}

checkFormat() {
  find . \( -path ./build -o -path ./.git \) -prune -o \( -name '*.cpp' -o -name '*.h' \) -print0 |
    xargs -0 -n 32 -P "$jobs" clang-format --dry-run --Werror
}

# Checks several sources at a time: most of the time is spent on the headers of the standard library.
checkTidy() {
  cmake --preset linux -B build/tidy -DTAVRIN_BUILD_TESTS=OFF &&
    run-clang-tidy -quiet -p build/tidy -j "$jobs" "^$top/(build/tidy/)?(?!.*winabi)(src|softtoken|standard|tool|examples)/"
}

# Builds the Windows libraries again in another folder, without the compiler cache, and compares the files.
checkReproducible() {
  local copy=$top/build/reproducible/a-copy-in-another-folder library libraries
  libraries=(TavrinPKCS11 TavrinPKCS11Standard TavrinDSCLibrary)
  rm -rf "$copy" && mkdir -p "$copy" &&
    tar -c --exclude=./build --exclude=./.git . | tar -x -C "$copy" &&
    (cd "$copy" && export CCACHE_DISABLE=1 && cmake --preset windows -DTAVRIN_BUILD_TESTS=OFF &&
      cmake --build --preset windows --parallel "$jobs" --target "${libraries[@]}") || return 1
  for library in "${libraries[@]}"; do
    cmp "$copy/build/windows/bin/$library.dll" "build/windows/bin/$library.dll" || return 1
  done
  rm -rf build/reproducible
}

# buildAll STEP...: makes the builds and checks among the steps. Prints for each its name, exit code and time.
buildAll() {
  local name status
  renice -n 10 -p "$BASHPID" >/dev/null
  for name in format "${builds[@]}" tidy reproducible; do
    has "$name" "$@" || continue
    status=0
    case $name in
      format) measured "$logs/$name.log" checkFormat || status=$? ;;
      tidy) measured "$logs/$name.log" checkTidy || status=$? ;;
      reproducible) measured "$logs/$name.log" checkReproducible || status=$? ;;
      *) measured "$logs/$name.log" build "$name" || status=$? ;;
    esac
    say "$name $status $took"
  done
}

# Counts the tests in a ctest report: each case that a GoogleTest program printed, and one for every other test. The names of
# the other tests contain a dot. A test that failed without naming a case counts as one failure. So does a program that stopped
# early or did not start, even with exit code 0, which Wine has returned for both. Prints "passed failed".
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

# runTests PRESET: the tests of a build.
runTests() {
  local preset=$1 junit=$logs/$1.xml log=$logs/$1-tests.log status=0 good=0 bad=0 wrapper=()
  rm -f "$junit"
  # ThreadSanitizer does not start where the kernel randomises addresses too widely. setarch -R turns that off if permitted.
  if [[ $preset == linux-tsan ]] && setarch -R true 2>/dev/null; then wrapper=(setarch -R); fi
  # Wine creates its prefix now, so that no test waits for it.
  [[ $preset != windows ]] || scripts/wine.sh wineboot -i >/dev/null 2>&1 || true
  measured "$log" "${wrapper[@]}" ctest --preset "$preset" --parallel "$jobs" --output-junit "$junit" \
    --test-output-size-passed 1000000 || status=$?
  [[ ! -s $junit ]] || read -r good bad < <(countCases "$junit")
  [[ $status -eq 0 || $bad -gt 0 ]] || bad=1
  count "$good" "$bad"
  if [[ $bad -gt 0 ]]; then
    grep -E -B 40 '^\[ +FAILED|FAILED:|\*\*\*Failed|\*\*\*Timeout' "$log" | tail -n 200 || true
    say "   the whole output is in ${log#"$top"/}"
  fi
  say "== $preset: $good tests passed, $bad failed ($took)"
  [[ $bad -eq 0 ]]
}

fingerprint() {
  git ls-files -z --cached --others --exclude-standard 2>/dev/null | xargs -0 sha256sum 2>/dev/null | sha256sum
}

# The tests of the linux build for "quick".
runTestsIfChanged() {
  local state=$logs/quick-passed now before good
  now=$(fingerprint)
  if [[ -s $state ]] && read -r before good <"$state" && [[ $before == "${now%% *}" ]]; then
    count "$good" 0
    say "== linux: $good tests passed before; no file has changed since"
    return
  fi
  rm -f "$state"
  good=$passed
  ! runTests linux || [[ $(fingerprint) != "$now" ]] || say "${now%% *} $((passed - good))" >"$state"
}

# runClients NAME GROUP|SCRIPT: "clients" needs the builds for linux and windows, the others that for linux.
runClients() {
  local log=$logs/$1.log good=0 bad=0
  mkdir -p build/windows
  measured "$log" tests/clients/run.sh build/linux build/windows "$2" || true
  sed 's/^/   /' "$log"
  read -r good bad < <(sed -nE '$s/^([0-9]+) passed, ([0-9]+) failed$/\1 \2/p' "$log") || bad=1
  count "$good" "$bad"
  say "== $1: $good checks passed, $bad failed ($took)"
}

runAsOne() { # NAME COMMAND...
  local status=0
  measured "$logs/$1.log" "${@:2}" || status=$?
  ! report "$1" "a short run" $status "$took" || sed 's/^/   /' "$logs/$1.log"
}

run() {
  case $1 in
    clients | desktop) runClients "$1" "$1" ;;
    package) runClients package "$top/packaging/debian/test_package.sh" ;;
    # This only shows that the benchmarks run. scripts/bench.sh alone takes longer and measures better.
    bench) runAsOne bench scripts/bench.sh --benchmark_repetitions=3 --benchmark_min_time=0.02 ;;
    fuzz) runAsOne fuzz scripts/fuzz.sh ;;
  esac
}

# runAfter BUILD: prints the runs that can start when this build is finished.
runAfter() {
  case $1 in
    linux) say bench package desktop ;;
    windows) say clients ;;
    linux-asan) say fuzz ;;
  esac
}

quick=
steps=("$@")
if [[ $* == quick ]]; then
  quick=1
  steps=(format linux)
elif [[ $# -eq 0 ]]; then
  steps=("${builds[@]}" "${checks[@]}" "${runs[@]}")
fi
for name in "${steps[@]}"; do
  if ! has "$name" "${builds[@]}" "${checks[@]}" "${runs[@]}"; then
    say "unknown step '$name'; the steps are: ${checks[*]} ${builds[*]} ${runs[*]}" >&2
    exit 2
  fi
done

setupOptions=()
for name in package clients desktop; do
  ! has "$name" "${steps[@]}" || setupOptions=(--clients)
done
scripts/setup.sh "${setupOptions[@]}"
mkdir -p "$logs"
export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=second_deadlock_stack=1

done=()
runOnce() {
  if has "$1" "${steps[@]}" && ! has "$1" "${done[@]}"; then
    done+=("$1")
    run "$1" || true
  fi
}
while read -r -u 3 name status took; do
  done+=("$name")
  if has "$name" "${checks[@]}"; then
    report "$name" "check" "$status" "$took" || true
    continue
  fi
  report "$name" "build" "$status" "$took" || continue
  if [[ -n $quick ]]; then runTestsIfChanged; else runTests "$name" || true; fi
  for next in $(runAfter "$name"); do runOnce "$next"; done
done 3< <(buildAll "${steps[@]}")
for name in "${runs[@]}"; do runOnce "$name"; done
for name in "${steps[@]}"; do
  has "$name" "${done[@]}" || report "$name" "was not run:" 1 "0 s" || true
done

say "== finished after $((SECONDS / 60)) min $((SECONDS % 60)) s"
say "$passed passed, $failed failed"
[[ $failed -eq 0 ]]
