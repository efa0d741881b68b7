#!/bin/bash
# Processes that end, or let go of the module, without finalising it: the exit code is the process's own, nothing
# crashes, and it takes no longer than two seconds.
source "$(dirname "$0")/common.sh"

# The monitor thread of a process that ends without finalising is never joined; that is what is tested here.
export TSAN_OPTIONS=${TSAN_OPTIONS:+$TSAN_OPTIONS:}report_thread_leaks=0

createToken lifecycle
run sign_file "$E2E_MODULE" "file:$(native "$E2E_PIN_FILE")" key "$(native "$E2E_PIN_FILE")" key rsa >/dev/null

milliseconds() { echo $((${EPOCHREALTIME/./} / 1000)); }

for state in loaded initialised loggedIn signing waiting; do
  for way in return exit _exit unload; do
    { launch lifecycle_child $state $way 2>errors && echo 0 >code || echo $? >code; } | {
      read -r line
      [[ $line == leaving* ]] || fail "$state, $way: $line $(cat errors)"
      milliseconds >left
    }
    code=$(cat code)
    ended=$(milliseconds)
    [[ $code == 42 ]] || fail "$state, $way: exit code $code $(cat errors)"
    took=$((ended - $(cat left)))
    [[ $way != unload ]] || took=$((took - 1200))
    [[ $took -le 2000 ]] || fail "$state, $way: took $took ms"
    echo "$state, $way: exit code $code after $took ms"
  done
done
