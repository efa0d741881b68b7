#!/bin/sh
# Runs a Windows program under Wine: scripts/wine.sh PROGRAM [ARGUMENT ...]
# Wine's own messages are off. Its prefix is below build/ unless WINEPREFIX is set.
top=$(cd "$(dirname "$0")/.." && pwd)
WINEPREFIX=${WINEPREFIX:-$top/build/wine-prefix}
WINEDEBUG=-all
# Wine's debugger is off: with it, a program that crashes ends with exit code 0.
WINEDLLOVERRIDES="${WINEDLLOVERRIDES:+$WINEDLLOVERRIDES;}winedbg.exe=d"
export WINEPREFIX WINEDEBUG WINEDLLOVERRIDES
mkdir -p "$WINEPREFIX"
exec /usr/lib/wine/wine64 "$@"
