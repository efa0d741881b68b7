#!/bin/bash
# What the built libraries show to the outside: they export the functions of the standard and the three extra ones, and
# they need nothing but the system's own libraries and each other. On Windows they name their maker.
source "$(dirname "$0")/common.sh"

sed -n 's/^  F(\(C_[A-Za-z]*\),.*/\1/p' "$here/../../include/pkcs11f.h" >functions
[[ $(wc -l <functions) == 68 ]] || fail "include/pkcs11f.h lists $(wc -l <functions) functions"

if [[ $E2E_SYSTEM == Windows ]]; then
  extra='?C_EjectToken@@YAKK@Z ?C_GetUnmanagedStructSizeList@@YAKPEAK0@Z ?C_InteractiveLogin@@YAKK@Z'
  system='kernel32 msvcrt advapi32 psapi version bcrypt shell32 user32 ws2_32 ucrtbase'
  exports() { objdump -p "$1" | awk '/\[Ordinal\/Name Pointer\] Table/ {on = 1; next} NF == 0 {on = 0} on {print $NF}'; }
  imports() { objdump -p "$1" | sed -n 's/.*DLL Name: \(.*\)\.[dD][lL][lL].*/\1/p'; }
  allowed=TavrinDSCLibrary
else
  extra='C_EjectToken C_GetUnmanagedStructSizeList C_InteractiveLogin'
  system='libc.so.6 libm.so.6 libstdc++.so.6 libgcc_s.so.1 ld-linux-x86-64.so.2 libasan.so.8 libubsan.so.1 libtsan.so.2'
  exports() { nm -D --defined-only "$1" | awk '$2 == "T" || $2 == "W" {print $3}' | c++filt -p; }
  imports() { objdump -p "$1" | sed -n 's/.*NEEDED *//p'; }
  allowed=libTavrinDSCLibrary.so
fi

# expectExports LIBRARY [EXTRA...]
expectExports() {
  printf '%s\n' "${@:2}" | cat functions - | sed '/^$/d' | LC_ALL=C sort >expected
  exports "$1" | LC_ALL=C sort >found
  diff -u expected found || fail "the exports of $(basename "$1") differ from include/pkcs11f.h"
}
expectExports "$library" $extra
expectExports "$standardLibrary"

# foreign LIBRARY [ALLOWED...]: what it imports besides the system's own libraries.
foreign() {
  imports "$1" | tr '[:upper:]' '[:lower:]' | grep -vxF -f <(printf '%s\n' $system "${@:2}" | tr '[:upper:]' '[:lower:]') |
    tr '\n' ' '
}
[[ -n $(imports "$library") ]] || fail "no imports found"
[[ -z $(foreign "$library" $allowed) ]] || fail "the module needs $(foreign "$library" $allowed)"
[[ -z $(foreign "$standardLibrary") ]] || fail "the standard module needs $(foreign "$standardLibrary")"
if [[ $E2E_SYSTEM == Windows ]]; then
  [[ -z $(foreign "$deviceLibrary") ]] || fail "the software token needs $(foreign "$deviceLibrary")"
  version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=\([0-9]*\.[0-9]*\).*/\1/p' "$E2E_BIN/../CMakeCache.txt")
  for file in "$library" "$standardLibrary" "$deviceLibrary" "$E2E_BIN"/{tavrin-tool,sign_file}.exe; do
    texts=$(strings -n 3 -el "$file" | tr '\n' ' ')
    product='Tavrin PKCS11 Library'
    [[ $file != "$deviceLibrary" ]] || product='Tavrin Software Token' # by which the installer knows it
    for text in 'CompanyName Quorvane Telemantix' "ProductName $product" "FileVersion $version" "ProductVersion $version"; do
      [[ $texts == *"$text "* ]] || fail "the version resource of $(basename "$file") lacks $text"
    done
  done
fi
# The host's locale, folder, modes and handlers stay as they are. On Windows the compiler's start code needs signal.
changes='setlocale|f?chdir|umask|sigaction|fesetround|setenv|_controlfp|Set(ErrorMode|UnhandledExceptionFilter|CurrentDirectory.)'
[[ $E2E_SYSTEM == Windows ]] || changes+='|signal'
changed=$({ objdump -p "$library" && nm -D "$library"; } 2>/dev/null | grep -owE "$changes" || true)
[[ -z $changed ]] || fail "the module changes the state of its host: $changed"
echo "68 functions, 3 extra ones, and $(imports "$library" | tr '\n' ' ')"
