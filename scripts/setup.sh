#!/bin/bash
# Installs the missing Debian packages that building and testing need: scripts/setup.sh [--clients]
# --clients adds the applications of tests/clients/packages.txt, with which the module is tested. When nothing is missing,
# it needs neither privileges nor a network.
set -euo pipefail

packages=(
  cmake ninja-build ccache g++ binutils                              # the native build
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64               # the Windows build
  wine64                                                             # running it
  libgcrypt20-dev libksba-dev libgpg-error-dev                       # the software token
  libcli11-dev nlohmann-json3-dev                                    # tavrin-tool
  libgcrypt-mingw-w64-dev libksba-mingw-w64-dev libgpg-error-mingw-w64-dev
  googletest libbenchmark-dev                                        # the tests and the benchmarks
  softhsm2                                                           # the other library that tests/standard tests
  opensc gnutls-bin openssl jq                                       # independent clients and an independent check
  clang-14 libclang-rt-14-dev                                  # the fuzz targets
  clang-format clang-tidy git util-linux
)

installed() {
  [[ $(dpkg-query -W -f='${db:Status-Abbrev}' "$1" 2>/dev/null) == ii* ]]
}

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
  echo "setup: this system has no apt-get; please install what these Debian packages contain: ${packages[*]}" >&2
  exit 0
fi

# A line of packages.txt names a package and optionally a command. The package is not installed if the command exists.
if [[ ${1-} == --clients ]]; then
  while read -r package command; do
    [[ -n $command ]] && command -v "$command" >/dev/null || packages+=("$package")
  done < <(grep -v '^#' "$(dirname "$0")/../tests/clients/packages.txt")
fi

missing=()
for package in "${packages[@]}"; do
  installed "$package" || missing+=("$package")
done
if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi

privileged=()
if [[ $EUID -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: please install, as root: apt-get install ${missing[*]}" >&2
    exit 1
  fi
  privileged=(sudo)
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
apt() {
  "${privileged[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 "$@" \
    </dev/null >"$log" 2>&1 && return
  cat "$log" >&2
  echo "setup: 'apt-get $*' failed; its output is above" >&2
  exit 1
}

echo "setup: installing ${missing[*]}"
apt update
apt install --no-install-recommends "${missing[@]}"
echo "setup: done"
