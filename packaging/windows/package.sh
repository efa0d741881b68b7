#!/bin/bash
# Makes the zip and the installer from a Windows build: packaging/windows/package.sh BUILD_DIR OUT_DIR [VERSION]
# VERSION is the project's, unless it is given. The same files give the same packages.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
bin=$(cd "${1:?the build folder is missing}" && pwd)/bin
version=${3:-$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$1/CMakeCache.txt")}
mkdir -p "${2:?the output folder is missing}"
out=$(cd "$2" && pwd)
name=tavrin-$version-windows-x64
epoch=${SOURCE_DATE_EPOCH:-$(git -C "$top" log -1 --format=%ct 2>/dev/null || echo 1767225600)}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# uuidFor TEXT: always the same for one text.
uuidFor() {
  printf %s "$1" | sha1sum | sed -E 's/^(.{8})(.{4}).(.{3}).(.{3})(.{12}).*/{\1-\2-5\3-8\4-\5}/' | tr a-f A-F
}

collect() {
  mkdir -p "$work/$name"
  cp "$bin"/{TavrinPKCS11.dll,TavrinDSCLibrary.dll,tavrin-tool.exe} "$top"/{README.md,CHANGELOG.md} "$work/$name/"
  cp -R "$top/docs" "$work/$name/docs"
  mkdir -p "$work/$name/TavrinDSC/Certificates"
  find "$work/$name" -exec touch -d "@$epoch" {} +
}

# documentGroup GROUP DIRECTORY FILE...: a component for each file.
documentGroup() {
  local file id
  echo "<ComponentGroup Id=\"$1\" Directory=\"$2\">"
  for file in "${@:3}"; do
    id=${file//[!A-Za-z0-9]/_}
    echo "<Component Id=\"$id\" Guid=\"*\" Win64=\"yes\"><File Id=\"File_$id\" Source=\"$name/$file\" KeyPath=\"yes\"/></Component>"
  done
  echo '</ComponentGroup>'
}

documents() {
  cd "$work/$name"
  echo '<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi"><Fragment>'
  documentGroup TopDocuments INSTALLDIR *.md
  documentGroup Documents DocumentFolder docs/*
  echo '</Fragment></Wix>'
}

makeZip() {
  rm -f "$out/$name.zip"
  (cd "$work" && find "$name" | LC_ALL=C sort | TZ=UTC zip -q -X "$out/$name.zip" -@)
}

makeInstaller() {
  local code
  code=$(uuidFor "Tavrin $version")
  (documents >"$work/documents.wxs")
  cp "$here/tavrin.wxs" "$work/"
  # wixl looks for files beside its input only.
  (cd "$work" && wixl --arch x64 -D Version="$version" -D ProductCode="$code" -D Files="$name" -o "$out/$name.msi" tavrin.wxs documents.wxs)
  # wixl does not know the element that extends PATH, takes a random package code, and writes the time into the file.
  msiinfo export "$out/$name.msi" _SummaryInformation |
    sed -E "s|^9\t[^\r]*|9\t$(uuidFor "$(sha256sum <"$out/$name.zip")")|
            s|^(1[23])\t[^\r]*|\1\t$(TZ=UTC date -d "@$epoch" '+%Y/%m/%d %H:%M:%S')|" >"$work/summary.idt"
  msibuild "$out/$name.msi" -i "$here/environment.idt" "$work/summary.idt" \
    -q "INSERT INTO InstallExecuteSequence (Action, Sequence) VALUES ('RemoveEnvironmentStrings', 3300)" \
    -q "INSERT INTO InstallExecuteSequence (Action, Sequence) VALUES ('WriteEnvironmentStrings', 5200)"
}

collect
makeZip
makeInstaller
echo "$out/$name.zip"
echo "$out/$name.msi"
