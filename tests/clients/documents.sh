#!/bin/bash
# The guides in docs/: runs every command in a block marked "sh" or "bat". Each guide gets a folder with the project's
# structure, the packages and a Wine prefix.
source "$(dirname "$0")/lib.sh"
top=$(cd "$here/../.." && pwd)
prefix=$windows/wine-prefix
unset TAVRIN_HOME JAVA_TOOL_OPTIONS

# blocks FILE: prints the commands for the shell unchanged, those for Windows as calls of windowsCommand.
blocks() {
  awk '/^```sh$/ {kind = "sh"; next} /^```bat$/ {kind = "bat"; next} /^```/ {kind = ""; next}
       kind == "sh" {print} kind == "bat" {print "windowsCommand <<'"'COMMAND'"'\n" $0 "\nCOMMAND"}' "$1"
}
windowsCommand() {
  local command
  read -r command
  # In a batch file, since cmd quotes differently.
  printf '@%s\r\n' "$command" >command.bat
  "$top/scripts/wine.sh" cmd /c command.bat </dev/null
}
export -f windowsCommand
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
  blocks "$top/docs/$guide.md" >"$folder/commands"
  count=$(grep -c . "$folder/commands")
  check "docs/$guide.md: $count lines of commands" \
    env TAVRIN_SOFT_TOKENS="$work/tokens-$guide" WINEPREFIX="$prefix" bash -c "cd '$folder' && set -euxo pipefail && . ./commands"
done
