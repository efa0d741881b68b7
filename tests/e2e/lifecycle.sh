#!/bin/bash
# Processes that end, or let go of the module, without finalising it: the exit code is the process's own, nothing
# crashes, and it takes no longer than two seconds.
source "$(dirname "$0")/common.sh"

# The monitor thread of a process that ends without finalising is never joined; that is what is tested here.
export TSAN_OPTIONS=${TSAN_OPTIONS:+$TSAN_OPTIONS:}report_thread_leaks=0

createToken lifecycle
run sign_file "$E2E_MODULE" "file:$(native "$E2E_PIN_FILE")" key "$(native "$E2E_PIN_FILE")" key rsa >/dev/null

milliseconds() { echo $((${EPOCHREALTIME/./} / 1000)); }

# Windows does not fork, and ThreadSanitizer lets no forked process start threads.
ways='return exit _exit unload'
[[ $E2E_SYSTEM == Windows || $E2E_SANITIZERS == *thread* ]] || ways+=' fork'

for tested in "$library" "$standardLibrary"; do
  name=$(basename "$tested")
  for state in loaded initialised loggedIn signing waiting; do
    for way in $ways; do
      { E2E_MODULE=$(native "$tested") launch lifecycle_child $state $way 2>errors && echo 0 >code || echo $? >code; } | {
        read -r line
        [[ $line == leaving* ]] || fail "$name, $state, $way: $line $(cat errors)"
        milliseconds >left
      }
      code=$(cat code)
      ended=$(milliseconds)
      [[ $code == 42 ]] || fail "$name, $state, $way: exit code $code $(cat errors)"
      took=$((ended - $(cat left)))
      [[ $way != unload ]] || took=$((took - 1200))
      [[ $took -le 2000 ]] || fail "$name, $state, $way: took $took ms"
      echo "$name, $state, $way: exit code $code after $took ms"
    done
  done
done
