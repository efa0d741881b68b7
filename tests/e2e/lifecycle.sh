#!/bin/bash
# Processes that end, or unload the module, without finalising it: the exit code is the process's own, nothing crashes,
# and it takes at most two seconds, or more on a slow machine.
source "$(dirname "$0")/common.sh"

# The monitor thread of a process that ends without finalising is never joined; that is what is tested here.
export TSAN_OPTIONS=${TSAN_OPTIONS:+$TSAN_OPTIONS:}report_thread_leaks=0

createToken lifecycle
run sign_file "$E2E_MODULE" "file:$(native "$E2E_PIN_FILE")" key "$(native "$E2E_PIN_FILE")" key rsa >/dev/null

ways='return exit _exit unload'
# With sanitizers, a forked process may start no threads (ThreadSanitizer) or hang, since the allocator of
# AddressSanitizer may be locked while it forks. AddressSanitizer also takes a library that is loaded again, or used
# while the process ends, for a second definition.
again=
[[ -n $E2E_SANITIZERS ]] || ways+=' late' again=reloaded
[[ -n $E2E_SANITIZERS || $E2E_SYSTEM == Windows ]] || ways+=' fork'

milliseconds() { echo $((${EPOCHREALTIME/./} / 1000)); }

# leave STATE WAY: prints the time between the announcement of leaving and the end of the process.
leave() {
  local file=$1-$2 code held=0
  [[ $2 != unload ]] || held=1200 # it waits that long after unloading
  { launch lifecycle_child "$1" "$2" 2>"$file.errors" && echo 0 >"$file.code" || echo $? >"$file.code"; } | {
    read -r line
    [[ $line == leaving* ]] || fail "$1, $2: $line $(<"$file.errors")"
    milliseconds >"$file.left"
  } || exit 1
  code=$(<"$file.code")
  [[ $code == 42 ]] || fail "$1, $2: exit code $code $(<"$file.errors")"
  echo $(($(milliseconds) - $(<"$file.left") - held))
}

# The time of a process that does nothing shows how fast the machine is. A busy machine may delay one process but a fault
# delays all, so the fastest of four is compared.
began=$(milliseconds)
launch lifecycle_child 2>/dev/null || true
limit=$((2000 + 4 * ($(milliseconds) - began)))
tryWays() { # STATE
  local way took
  for way in $ways; do
    for _ in {1..4}; do
      took=$(leave "$1" "$way")
      [[ $took -gt $limit ]] || break
    done
    [[ $took -le $limit ]] || fail "$1, $way: took $took ms"
    echo "${E2E_MODULE##*/}, $1, $way: left after $took ms"
  done
}

# The states at the same time, because these processes mostly wait.
for tested in "$library" "$standardLibrary"; do
  E2E_MODULE=$(native "$tested")
  tests=()
  for state in loaded $again initialised loggedIn signing waiting; do
    tryWays $state &
    tests+=($!)
  done
  for test in "${tests[@]}"; do wait "$test"; done
done
