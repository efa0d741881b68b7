# Sourced by the script of every client, which is called as SCRIPT BUILD_DIR_LINUX BUILD_DIR_WINDOWS. It gives the script a
# working folder with a home, a log and a token of its own. Every check prints a line that begins with "ok: " or "FAILED: ";
# anything else that fails ends the script.
set -euo pipefail
exec </dev/null
export LC_ALL=C.UTF-8
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
linux=$(cd "${1:?the folder of the Linux build is missing}" && pwd)
windows=$(cd "${2:?the folder of the Windows build is missing}" && pwd)
tool=$linux/bin/tavrin-tool
module=$linux/bin/libtavrin-pkcs11.so
standard=$linux/bin/libtavrin-pkcs11-standard.so
work=$(mktemp -d /tmp/tavrin-client.XXXXXX)
servers=()

cleanup() {
  [[ $? == 0 ]] || sed 's/^/    /' "$work/output" || true
  [[ ${#servers[@]} == 0 ]] || { kill "${servers[@]}" 2>/dev/null; wait; } || true
  rm -rf "$work" || { sleep 1 && rm -rf "$work"; } # a browser's child processes end a little later
}
trap cleanup EXIT
trap 'exit 1' INT TERM

userHome=$HOME # where npm finds its settings
mkdir "$work"/{home,tmp,tokens,tavrin-home}
export HOME=$work/home TMPDIR=$work/tmp TAVRIN_SOFT_TOKENS=$work/tokens TAVRIN_HOME=$work/tavrin-home
export TAVRIN_REGISTRY=$work/registry
unset XDG_DATA_HOME XDG_CONFIG_HOME OPENSSL_CONF SSH_AUTH_SOCK
cd "$work"

# The PIN is in a file, with and without a line end, and in the environment. Other users can see arguments.
PIN=$(openssl rand -hex 6)
export PIN
echo "$PIN" >pin
printf %s "$PIN" >bare-pin
openssl rand -hex 6 >so-pin
echo "A document that somebody signs." >document

passed() { echo "ok: $1"; }
failed() {
  echo "FAILED: $1"
  sed 's/^/    /' "$work/output"
}

# check WHAT COMMAND...: the command succeeds. shows WHAT PATTERN COMMAND...: and a line of its output matches the pattern.
# refuses WHAT PATTERN COMMAND...: it fails, and a line matches.
check() { ended 0 "$1" '' "${@:2}"; }
shows() { ended 0 "$@"; }
refuses() { ended 1 "$@"; }
ended() {
  local code=0
  "${@:4}" >"$work/output" 2>&1 || code=1
  if [[ $code == "$1" ]] && { [[ -z $3 ]] || grep -qE -- "$3" "$work/output"; }; then passed "$2"; else failed "$2"; fi
}

# quietly COMMAND...: preparation; shows the output and ends the script only if the command fails.
quietly() {
  "$@" >"$work/output" 2>&1 && return
  failed "preparation: $*"
  exit 1
}

# background COMMAND...: runs until the script ends.
background() {
  "$@" >"$work/server-output" 2>&1 &
  servers+=($!)
}

# eventually COMMAND...: succeeds within forty seconds; shows what the last attempt printed.
eventually() {
  local result=1
  for _ in {1..400}; do
    "$@" >"$work/attempt" 2>&1 && result=0 && break
    sleep 0.1
  done
  cat "$work/attempt"
  return $result
}

port() { echo $((20000 + RANDOM % 10000)); }

loggedIn() { pkcs11-tool --module "$module" --login --pin env:PIN "$@"; }

# publicKey ID FILE: with p11tool, since pkcs11-tool 0.23 uses freed memory when it reads EC keys.
publicKey() { p11tool --provider "$module" --batch --export "pkcs11:id=%$1;type=public" --outfile "$2"; }

# A token with an RSA key of ID 01 and a P-256 key of ID 02, labelled "rsa" and "ec"; their public keys are in rsa.pem, ec.pem.
createToken() { quietly "$tool" token create client --label "Client token" --pin-file pin --so-pin-file so-pin; }
generate() { # ID LABEL TYPE
  quietly loggedIn --keypairgen --id "$1" --label "$2" --key-type "$3"
  quietly publicKey "$1" "$2.pem"
}
createTokenWithKeys() {
  createToken
  generate 01 rsa rsa:2048
  generate 02 ec EC:prime256v1
}

# A certificate authority in ca.crt, and certificates that it issues: issue PUBLIC-KEY CERTIFICATE SUBJECT [EXTENSION...]
# and serverCertificate SUBJECT EXTENSION..., in server.crt with server.key.
certificateAuthority() {
  openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.crt -subj "/CN=Test authority" -days 30 2>/dev/null
}
issue() {
  [[ -f ca.crt ]] || certificateAuthority
  printf '%s\n' "${@:4}" >extensions
  openssl req -new -key ca.key -subj "$3" -out request
  quietly openssl x509 -req -in request -force_pubkey "$1" -CA ca.crt -CAkey ca.key -CAcreateserial -days 30 \
    -extfile extensions -out "$2"
}
serverCertificate() {
  openssl genrsa -out server.key 2>/dev/null
  issue <(openssl pkey -in server.key -pubout) server.crt "$@"
}
# clientCertificate LABEL ID: a certificate for TLS clients and signers in LABEL.crt and on the token.
clientCertificate() {
  issue "$1.pem" "$1.crt" "/CN=User $1" extendedKeyUsage=clientAuth,emailProtection keyUsage=digitalSignature
  openssl x509 -in "$1.crt" -outform DER -out "$1.der"
  quietly loggedIn --write-object "$1.der" --type cert --label "$1" --id "$2"
}

# SSH programs get the PIN from a program.
answerSsh() {
  printf '#!/bin/sh\ncat "%s/pin"\n' "$work" >askpass
  chmod +x askpass
  export SSH_ASKPASS=$work/askpass SSH_ASKPASS_REQUIRE=force
}

useStandard() { module=$standard; }

# recipe HEADING: runs the commands of docs/clients.md below that heading, as a user would.
recipe() {
  awk -v heading="## $1" '/^## / {on = $0 == heading} /^```/ {code = on && $0 == "```sh"; next} code' \
    "$here/../../docs/clients.md" >"recipe-$1"
  [[ -s recipe-$1 ]] || quietly false "docs/clients.md has no commands for $1"
  # shellcheck disable=SC1090
  source "recipe-$1" >"$work/output" 2>&1
  passed "the recipe for $1"
}

# startNginx MAIN HTTP: nginx in the foreground with these directives.
startNginx() {
  echo "daemon off; user $(id -un); pid $work/nginx.pid; error_log $work/nginx.log; $1
    events {}
    http { client_body_temp_path $work/body; ssl_session_cache off; $2 }" >nginx.conf
  background "$(PATH=$PATH:/usr/sbin command -v nginx)" -p "$work" -e "$work/nginx.log" -c "$work/nginx.conf"
  check "the server starts" eventually test -s nginx.pid
}

# The configuration by which OpenSSL's engine finds the module, and the URIs of the keys with their PIN's file.
configureEngine() {
  printf '%s\n' 'openssl_conf = start' '[start]' 'engines = engines' '[engines]' 'pkcs11 = tavrin' '[tavrin]' 'engine_id = pkcs11' \
    "MODULE_PATH = $module" 'init = 0' '[req]' 'distinguished_name = name' '[name]' >engine.cnf
  rsaKey="pkcs11:object=rsa;type=private;pin-source=file:$work/bare-pin"
  ecKey="pkcs11:object=ec;type=private;pin-source=file:$work/bare-pin"
}
withEngine() { OPENSSL_CONF=$work/engine.cnf openssl "$1" -engine pkcs11 "${@:2}"; }

# selfSigned KEY CERTIFICATE SUBJECT [OPTION...]: through the engine.
selfSigned() {
  withEngine req -keyform engine -new -x509 -key "$1" -out "$2" -subj "$3" -days 30 "${@:4}"
}
verifySignature() { # PUBLIC-KEY SIGNATURE [OPTION...]
  openssl dgst -verify "$1" -signature "$2" "${@:3}" document
}
verifyCms() { # FILE CERTIFICATE [OPTION...]
  openssl cms -verify -binary -inform DER -in "$1" -CAfile "$2" -purpose any -out verified "${@:3}" && cmp verified document
}

# nodePackages FOLDER [PACKAGE...]: pkcs11js and graphene for Node.js, and more, from npm. compileAddon FOLDER COMPILER [OPTION...]:
# compiles the addon of pkcs11js. Both keep what an earlier run left in the folder.
nodePackages() {
  [[ ! -d $1/node_modules ]] || return 0
  mkdir -p "$1"
  quietly env HOME="$userHome" npm install --prefix "$1" --no-save --no-package-lock --ignore-scripts --force --no-audit \
    --no-fund pkcs11js@2.1 node-api-headers@1 graphene-pk11@2 "${@:2}"
}
compileAddon() {
  local modules=$1/node_modules addon=$1/node_modules/pkcs11js/build/Release/pkcs11.node
  [[ ! -f $addon ]] || return 0
  mkdir -p "$(dirname "$addon")"
  quietly "$2" -std=c++17 -O1 -w -shared -DBUILDING_NODE_EXTENSION -DNODE_GYP_MODULE_NAME=pkcs11 -I"$modules/pkcs11js/includes" \
    -I"$modules/node-api-headers/include" "$modules"/pkcs11js/src/{dl,common,main}.cpp "${@:3}" -o "$addon"
}

# Windows programs run under Wine, in a prefix that is kept for the next run. Drive Z: is the root folder.
startWine() {
  export WINEPREFIX=$windows/wine-prefix TAVRIN_SOFT_TOKENS=Z:$work/tokens TAVRIN_HOME=Z:$work/tavrin-home
  [[ -f $WINEPREFIX/system.reg ]] || quietly wine wineboot -i
  quietly wine winecfg -v win10
}
# The output goes to a file, since some Windows programs cannot write to a pipe.
wine() {
  local result=0
  "$here/../../scripts/wine.sh" "$@" >"$work/wine-output" 2>"$work/wine-errors" || result=$?
  tr -d '\r' <"$work/wine-output"
  [[ $result == 0 ]] || cat "$work/wine-errors"
  return $result
}
