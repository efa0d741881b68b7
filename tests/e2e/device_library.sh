#!/bin/bash
# Windows takes the device library from the module's folder when a program loads the module in the plain way: without
# PATH, and whatever lies in the working folder, beside the program and in PATH.
source "$(dirname "$0")/common.sh"

mkdir module program elsewhere
cp "$library" "$deviceLibrary" module/
cp "$E2E_BIN/plain_load.exe" program/
loaded() { # WHERE: plain loading by a relative and by an absolute path takes the library beside the module
  local path found
  for path in 'module\TavrinPKCS11.dll' "$(native "$PWD/module/TavrinPKCS11.dll")"; do
    found=$("$E2E_RUNNER" program/plain_load.exe "$path" | tr -d '\r') || fail "$1, $path: $found"
    [[ ${found//\\//} == *:"$PWD/module/TavrinDSCLibrary.dll" ]] || fail "$1, $path: $found was loaded"
  done
}
loaded "no other library"
cp "$deviceLibrary" .
loaded "another one in the working folder"
cp "$deviceLibrary" program/
loaded "another one beside the program"
cp "$deviceLibrary" elsewhere/
export WINEPATH="Z:$PWD/elsewhere"
loaded "another one in PATH"
echo "the library beside the module was loaded in each case"
