#!/bin/bash
# On POSIX systems the log is private: the module writes to nothing but the user's own files, in folders for this user
# alone, and a limit on the size of files does not end the process.
source "$(dirname "$0")/common.sh"

level="registry/Software/Quorvane Telemantix/Tavrin/logLevel"
mkdir -p "$(dirname "$level")"
echo 3 >"$level"
export TAVRIN_REGISTRY=$PWD/registry
name="Quorvane Telemantix/lifecycle_child" today=$(date +%F).LOG
folder=$TMPDIR/$name file=$folder/$today

# logs COMMAND...: empties the folder for temporary files, prepares it with the command, and prints what the program
# prints that logs a line.
logs() {
  rm -rf "$TMPDIR"
  mkdir -p "$folder"
  echo target >target
  "$@"
  launch lifecycle_child loaded exit || [[ $? == 42 ]]
}
refuses() { # WHAT COMMAND...
  [[ $(logs "${@:2}") == *"Unable to write log"* ]] || fail "$1: it was not refused"
  [[ $(<target) == target && ! -e $today ]] || fail "$1: it was written to"
}
refuses "a symbolic link" ln -s "$PWD/target" "$file"
refuses "a second name" ln target "$file"
refuses "a pipe" mkfifo "$file"
pipeWithReader() { mkfifo "$file" && exec 3<>"$file"; }
refuses "a pipe with a reader" pipeWithReader
refuses "a folder" mkdir "$file"
linkToFolder() { rmdir "$folder" && ln -s "$PWD" "$folder"; }
refuses "a link to a folder" linkToFolder

umask 0
[[ $(logs rm -r "$TMPDIR/Quorvane Telemantix") == leaving* ]] || fail "nothing was logged"
for modes in "700 $TMPDIR/Quorvane Telemantix" "700 $folder" "600 $file"; do
  [[ $(stat -c %a "${modes#* }") == "${modes%% *}" ]] || fail "the mode of ${modes#* } is not ${modes%% *}"
done
size=$(stat -c %s "$file")
# ThreadSanitizer delivers the signal of the limit before the module can take it back.
[[ $E2E_SANITIZERS == *thread* ]] || (ulimit -f 0 && launch lifecycle_child loaded exit >/dev/null) || [[ $? == 42 ]] || fail "the limit ended the process"
[[ $(stat -c %s "$file") == "$size" ]] || fail "the log is beyond the limit"

# Without a folder of its own the user logs to one below /tmp.
logsBelowTmp() { # WHAT USER COMMAND...
  local own=/tmp/tavrin-$2/$name/$today before
  before=$(stat -c %s "$own" 2>/dev/null || echo 0)
  "${@:3}" >printed
  [[ $(stat -c %s "$own") -gt $before ]] || fail "$1: no line was logged to $own: $(<printed)"
}
withoutFolder() { env -u TMPDIR "$E2E_BIN/lifecycle_child" loaded exit || [[ $? == 42 ]]; }
logsBelowTmp "no folder is named" $EUID withoutFolder
if [[ $EUID == 0 ]]; then
  # Only root can give another user a file.
  anothersFile() { echo x >"$file" && chown nobody "$file"; }
  refuses "another's file" anothersFile
  refuses "another's folder" chown nobody "$folder"
  logsBelowTmp "another's folder above it" 0 logs chown nobody "$TMPDIR/Quorvane Telemantix"
fi
# A program with the set-user-ID bit does not trust the environment. LeakSanitizer cannot trace such a program. It is in a
# folder of its own, because its user may not be allowed to enter this one.
if [[ $EUID == 0 && -z $E2E_SANITIZERS ]]; then
  program=setuid_$$ && own=/tmp/tavrin-$(id -u nobody)/${name%/*}/$program
  TMPDIR=$(mktemp -d /tmp/tavrin-setuid.XXXXXX)
  chmod 777 "$TMPDIR"
  install -o nobody -m 4755 "$E2E_BIN/unit_tests" "$TMPDIR/$program"
  (cd / && "$TMPDIR/$program" --gtest_filter=SlotsTest.Refusals >/dev/null) || true
  grep -qs 'invalid slotID=0' "$own/$today" || fail "the program with the set-user-ID bit did not log to $own"
  ! grep -q DEBUG "$own/$today" || fail "the program with the set-user-ID bit believed the level of \$TAVRIN_REGISTRY"
  [[ ! -e $TMPDIR/${name%/*}/$program ]] || fail "the program with the set-user-ID bit logged to \$TMPDIR"
  rm -r "$own" "$TMPDIR"
fi
