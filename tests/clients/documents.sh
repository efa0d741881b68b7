#!/bin/bash
# The guides in docs/: runs every command in a block marked "sh" or "bat". Each guide gets a folder with the project's
# structure, the packages and a Wine prefix.
source "$(dirname "$0")/lib.sh"
top=$(cd "$here/../.." && pwd)
prefix=$windows/wine-prefix
unset TAVRIN_HOME JAVA_TOOL_OPTIONS

# blocks FILE: prints the commands for the shell unchanged, those for Windows as calls of windowsCommands.
blocks() {
  awk '/^```(sh|bat)$/ {kind = substr($0, 4); if (kind == "bat") print "windowsCommands <<'"'COMMANDS'"'"; next}
       /^```/ {if (kind == "bat") print "COMMANDS"; kind = ""; next} kind != "" {print}' "$1"
}
# In a batch file that ends at the first failure.
windowsCommands() {
  sed 's/.*/@&\r\n@if errorlevel 1 exit \/b 1\r/' >commands.bat
  "$top/scripts/wine.sh" cmd /c commands.bat </dev/null
}
export -f windowsCommands
export top

for guide in application-developers administrators maker-engineers; do
  folder=$work/$guide
  mkdir -p "$folder/build" "$work/tokens-$guide"
  for entry in CMakeLists.txt CMakePresets.json cmake include src softtoken standard tool examples packaging scripts; do
    ln -s "$top/$entry" "$folder/$entry"
  done
  ln -s "$linux" "$folder/build/linux"
  ln -s "$windows" "$folder/build/windows"
  quietly "$top/packaging/windows/package.sh" "$windows" "$folder"
  quietly unzip "$folder"/*.zip -d "$folder"
  blocks "$top/docs/$guide.md" >"$folder/commands"
  count=$(grep -c . "$folder/commands")
  check "docs/$guide.md: $count lines of commands" \
    env PATH="/usr/bin:$PATH" TAVRIN_SOFT_TOKENS="$work/tokens-$guide" WINEPREFIX="$prefix" bash -c "cd '$folder' && set -euxo pipefail && . ./commands"
done
