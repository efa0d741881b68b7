#!/bin/bash
# Tests the libraries with real clients: tests/clients/run.sh BUILD_DIR_LINUX BUILD_DIR_WINDOWS desktop|clients|SCRIPT ...
# "desktop" means the programs of a user's desktop, "clients" all others and the packages for Windows, without
# pkcs11_tool.sh, which is one of the tests of the Linux build. One line for each client, with its checks; what failed is
# shown. The last line counts all checks.
set -euo pipefail
folder=$(cd "$(dirname "$0")" && pwd)
builds=("${1:?the folder of the Linux build is missing}" "${2:?the folder of the Windows build is missing}")
shift 2
scripts=()
for name in "$@"; do
  case $name in
    clients)
      scripts+=("$folder"/{gnutls,openssl_engine,nginx,nss,java,openssh,osslsigncode,p11_kit,standard}.sh)
      scripts+=("$folder"/{node_windows,documents}.sh "$folder/../../packaging/windows/test_package.sh")
      ;;
    desktop) scripts+=("$folder"/{browsers,report_page,pdfsig,openvpn,git,gpgsm}.sh) ;;
    *) scripts+=("$name") ;;
  esac
done

output=$(mktemp)
trap 'rm -f "$output"' EXIT
passed=0 failed=0
for script in "${scripts[@]}"; do
  start=$SECONDS
  stopped=0
  timeout 600 "$script" "${builds[@]}" >"$output" 2>&1 || stopped=1
  good=$(grep -c '^ok: ' "$output" || true)
  bad=$(grep -c '^FAILED: ' "$output" || true)
  if [[ $stopped == 1 && $bad == 0 ]] || [[ $good == 0 && $bad == 0 ]]; then bad=1; fi
  printf '%-20s %3d passed, %d failed (%d s)\n' "$(basename "$script" .sh)" "$good" "$bad" $((SECONDS - start))
  [[ $bad == 0 ]] || grep -v '^ok: ' "$output" || true
  [[ $stopped == 0 ]] || echo "    $(basename "$script") stopped before its end"
  passed=$((passed + good))
  failed=$((failed + bad))
done
echo "$passed passed, $failed failed"
[[ $failed == 0 ]]
