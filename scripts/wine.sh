#!/bin/sh
# Runs a Windows program under Wine, quietly and in a prefix of our own below build/: scripts/wine.sh PROGRAM [ARGUMENT ...]
top=$(cd "$(dirname "$0")/.." && pwd)
WINEPREFIX=${WINEPREFIX:-$top/build/wine-prefix}
WINEDEBUG=-all
# Without its debugger: under it, a program that crashes ends with exit code 0, as if nothing had happened.
WINEDLLOVERRIDES="${WINEDLLOVERRIDES:+$WINEDLLOVERRIDES;}winedbg.exe=d"
export WINEPREFIX WINEDEBUG WINEDLLOVERRIDES
mkdir -p "$WINEPREFIX"
exec /usr/lib/wine/wine64 "$@"
