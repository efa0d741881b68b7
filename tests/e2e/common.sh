# Sourced by the end-to-end scripts: a clean working folder, a software token, and the built programs on either system.
# CMake sets E2E_BIN (the built files), E2E_SYSTEM (Linux or Windows), E2E_RUNNER (what runs them, perhaps nothing),
# E2E_FOLDER (this test's working folder) and E2E_SANITIZERS (what they were built with, mostly nothing).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

# The name by which a built program knows an absolute path of this machine.
native() {
  if [[ $E2E_SYSTEM == Windows ]]; then printf 'Z:%s' "$1"; else printf '%s' "$1"; fi
}

if [[ $E2E_SYSTEM == Windows ]]; then
  exe=.exe library=$E2E_BIN/TavrinPKCS11.dll deviceLibrary=$E2E_BIN/TavrinDSCLibrary.dll
  standardLibrary=$E2E_BIN/TavrinPKCS11Standard.dll
else
  exe='' library=$E2E_BIN/libtavrin-pkcs11.so deviceLibrary=$E2E_BIN/libTavrinDSCLibrary.so
  standardLibrary=$E2E_BIN/libtavrin-pkcs11-standard.so
fi

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# launch PROGRAM ARGUMENT...: one of the built programs. run does the same, and Windows' line ends become ours.
launch() {
  ${E2E_RUNNER:+"$E2E_RUNNER"} "$E2E_BIN/$1$exe" "${@:2}" </dev/null
}
run() {
  launch "$@" | tr -d '\r'
}

# awaited CONDITION: waits a minute for it.
awaited() {
  for _ in {1..600}; do
    ! eval "$1" || return 0
    sleep 0.1
  done
  fail "never: $1"
}

# createToken NAME: a token of that name and label under the PINs of this run.
createToken() {
  run tavrin-tool token create "$1" --label "$1" --pin-file "$(native "$E2E_PIN_FILE")" \
    --so-pin-file "$(native "$E2E_FOLDER/so-pin")"
}

rm -rf "$E2E_FOLDER"
mkdir -p "$E2E_FOLDER/tmp" "$E2E_FOLDER/tokens"
cd "$E2E_FOLDER"
E2E_PIN_FILE=$E2E_FOLDER/pin
E2E_MODULE=$(native "$library")
TAVRIN_SOFT_TOKENS=$(native "$E2E_FOLDER/tokens")
TAVRIN_HOME=$(native "$E2E_FOLDER/home")
TMPDIR=$E2E_FOLDER/tmp
export E2E_PIN_FILE E2E_MODULE TAVRIN_SOFT_TOKENS TAVRIN_HOME TMPDIR
openssl rand -hex 8 >"$E2E_PIN_FILE"
openssl rand -hex 8 >"$E2E_FOLDER/so-pin"
