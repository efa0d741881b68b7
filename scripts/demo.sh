#!/bin/bash
# Demonstrates the whole system on Linux and on Windows: scripts/demo.sh
#
# It installs missing packages, builds, makes software tokens, and signs a file with an RSA and an elliptic-curve key: with
# pkcs11-tool through the native library, then with an example client through the Windows DLL under Wine. openssl checks every
# signature. All results are in build/demo. It can be run again at any time.
set -euo pipefail
exec </dev/null
cd "$(dirname "$0")/.."
top=$PWD
demo=$top/build/demo
day=$(date +%Y-%m-%d)

say() {
  if [[ -t 1 ]]; then printf '\n\033[1m%s\033[0m\n' "$*"; else printf '\n%s\n' "$*"; fi
}

# Runs a command and shows its output only if it fails.
quietly() {
  "$@" >"$demo/output" 2>&1 && return
  cat "$demo/output" >&2
  echo "demo: '$*' failed; its output is above" >&2
  exit 1
}

verify() {
  printf '%s.sig: ' "$1"
  openssl dgst -sha256 -verify "$demo/$1.pem" -signature "$demo/$1.sig" "$demo/document.txt"
}

prepare() {
  rm -rf "$demo"
  mkdir -p "$demo/linux" "$demo/windows" "$demo/registry/Software/Quorvane Telemantix/Tavrin"
  openssl rand -hex 6 >"$demo/pin"
  openssl rand -hex 6 >"$demo/so-pin"
  cp README.md "$demo/document.txt"
}

build() {
  for preset in linux windows; do
    say "Building for $preset"
    quietly cmake --preset $preset
    quietly cmake --build --preset $preset --parallel "$(nproc)" \
      --target TavrinPKCS11 TavrinDSCLibrary tavrin-tool sign_file wait_for_token
    ls -1 build/$preset/bin/*avrin*
  done
}

onLinux() {
  local module=$top/build/linux/bin/libtavrin-pkcs11.so
  # Where the module finds tokens, writes its log and reads how much to log (3: everything).
  export TAVRIN_SOFT_TOKENS=$demo/linux/tokens TMPDIR=$demo/linux TAVRIN_REGISTRY=$demo/registry
  echo 3 >"$TAVRIN_REGISTRY/Software/Quorvane Telemantix/Tavrin/logLevel"
  mkdir -p "$TAVRIN_SOFT_TOKENS"
  client() {
    pkcs11-tool --module "$module" --login --pin env:DEMO_PIN "$@" 2>"$demo/errors" && return
    cat "$demo/errors" >&2
    echo "demo: 'pkcs11-tool $*' failed" >&2
    exit 1
  }
  # p11tool, because pkcs11-tool of OpenSC 0.23 uses freed memory when it reads EC keys.
  publicKey() {
    quietly p11tool --provider "$module" --batch --export "pkcs11:id=%$1;type=public" --outfile "$demo/linux/$2.pem"
  }
  DEMO_PIN=$(cat "$demo/pin")
  export DEMO_PIN

  say "Linux: a software token, made with tavrin-tool"
  build/linux/bin/tavrin-tool token create demo --label "Demo token" --pin-file "$demo/pin" --so-pin-file "$demo/so-pin"
  build/linux/bin/tavrin-tool token list

  say "Linux: pkcs11-tool generates an RSA and an elliptic-curve key through libtavrin-pkcs11.so"
  client --keypairgen --key-type rsa:2048 --label "RSA key" --id 01 >/dev/null
  client --keypairgen --key-type EC:prime256v1 --label "EC key" --id 02 >/dev/null
  client --list-objects

  say "Linux: pkcs11-tool signs a file with both, openssl verifies"
  publicKey 01 rsa
  publicKey 02 ec
  client --sign --mechanism SHA256-RSA-PKCS --id 01 --input-file "$demo/document.txt" \
    --output-file "$demo/linux/rsa.sig" >/dev/null
  client --sign --mechanism ECDSA-SHA256 --id 02 --signature-format openssl --input-file "$demo/document.txt" \
    --output-file "$demo/linux/ec.sig" >/dev/null
  verify linux/rsa
  verify linux/ec
  linuxLog="$demo/linux/Quorvane Telemantix/pkcs11-tool/$day.LOG"
}

onWindows() {
  local bin=$top/build/windows/bin
  wine() { "$top/scripts/wine.sh" "$@" | tr -d '\r'; }
  key='HKLM\Software\Quorvane Telemantix\Tavrin'
  export TAVRIN_SOFT_TOKENS=Z:$demo/windows/tokens
  mkdir -p "$demo/windows/tokens"

  say "Windows: the same token and keys, with tavrin-tool.exe and sign_file.exe through TavrinPKCS11.dll under Wine"
  quietly wine wineboot -i # the first start creates the prefix
  local temporary
  temporary=$(wine cmd /c 'echo %TEMP%' | sed 's,^C:,,; s,\\,/,g')
  windowsLog="${WINEPREFIX:-$top/build/wine-prefix}/drive_c$temporary/Quorvane Telemantix/sign_file/$day.LOG"
  rm -f "$windowsLog" # of an earlier run
  quietly wine reg add "$key" /v logLevel /t REG_DWORD /d 3 /f
  trap 'quietly wine reg delete "$key" /v logLevel /f' EXIT
  wine "$bin/tavrin-tool.exe" token create demo --label "Demo token" --pin-file "Z:$demo/pin" --so-pin-file "Z:$demo/so-pin"
  for kind in rsa ec; do
    wine "$bin/sign_file.exe" "Z:$bin/TavrinPKCS11.dll" "file:Z:$demo/pin" "$kind key" "Z:$demo/document.txt" \
      "Z:$demo/windows/$kind" $kind
  done

  say "Windows: openssl verifies"
  verify windows/rsa
  verify windows/ec
}

scripts/setup.sh
prepare
build
onLinux
onWindows
for log in "$linuxLog" "$windowsLog"; do
  grep -q C_Sign "$log" || { echo "demo: the log $log does not show the signatures" >&2; exit 1; }
done

say "Done"
cat <<END
Two tokens were made, one for each system. On each of them an RSA-2048 and a P-256 key signed
  $demo/document.txt
and openssl accepted all four signatures. Keys, signatures and tokens are in build/demo.

The module logged every call that it received:
  $linuxLog
  $windowsLog
The log of your own programs is in the temporary folder, one file for each program and day; docs/administrators.md says more.
END
