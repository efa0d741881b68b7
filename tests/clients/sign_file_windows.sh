#!/bin/bash
# Our own example client on Windows: keys are generated, a file is signed, and the next process signs with the same keys.
source "$(dirname "$0")/lib.sh"
startWine
client() { wine "$windows/bin/sign_file.exe" "Z:$windows/bin/TavrinPKCS11.dll" env:PIN "$@"; }

shows "create a token" 'created client' wine "$windows/bin/tavrin-tool.exe" token create client --label "Client token" --pin-file pin --so-pin-file so-pin
for key in rsa ec; do
  shows "generate and sign, $key" 'Token "Client token"' client "my $key key" document first $key
  check "openssl verifies" verifySignature first.pem first.sig -sha256
  check "sign again" client "my $key key" document second
  check "openssl verifies" verifySignature first.pem second.sig -sha256
done
refuses "a key that is not there" 'no key labelled' client "other key" document third
# The same token serves both systems.
TAVRIN_SOFT_TOKENS=$work/tokens shows "the Linux module shows the keys" '^2$' eval 'loggedIn --list-objects --type privkey | grep -c "label: *my"'
