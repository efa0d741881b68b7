#!/bin/bash
# Makes the zip and the installer from a Windows build: packaging/windows/package.sh [OPTION...] BUILD_DIR OUT_DIR [VERSION]
#
#   --sign CERTIFICATES   sign the DLLs, the programs and the installer; a PEM file with the signer's certificate first
#   --key URI             the signer's private key on a token, for example "pkcs11:object=release;type=private"
#   --pin-file FILE       the token's password, on the first line
#   --module FILE         the PKCS#11 module to sign with; build/linux/bin/libtavrin-pkcs11.so if not given
#   --timestamp URL       a time stamp server (RFC 3161)
#
# Without VERSION, the packages have the project's version. SHA256SUMS in OUT_DIR lists all packages in that folder. Without
# --sign, the same files give the same packages.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
certificates='' key='' pinFile='' timestamp=()
module=$top/build/linux/bin/libtavrin-pkcs11.so
while [[ ${1-} == --* ]]; do
  value=${2:?$1 needs a value}
  case $1 in
    --sign) certificates=$(realpath "$value") ;;
    --key) key=$value ;;
    --pin-file) pinFile=$(realpath "$value") ;;
    --module) module=$(realpath "$value") ;;
    --timestamp) timestamp=(-ts "$value") ;;
    *)
      echo "$(basename "$0"): unknown option $1" >&2
      exit 2
      ;;
  esac
  shift 2
done
bin=$(cd "${1:?the build folder is missing}" && pwd)/bin
version=${3:-$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$1/CMakeCache.txt")}
mkdir -p "${2:?the output folder is missing}"
out=$(cd "$2" && pwd)
name=tavrin-$version-windows-x64
epoch=${SOURCE_DATE_EPOCH:-$(git -C "$top" log -1 --format=%ct 2>/dev/null || echo 1767225600)}
umask 022
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The packages whose code is linked into the DLLs and programs.
contained=(libgcrypt-mingw-w64-dev libksba-mingw-w64-dev libgpg-error-mingw-w64-dev mingw-w64-x86-64-dev gcc-mingw-w64-base
  libcli11-dev nlohmann-json3-dev)

# uuidFor TEXT: a UUID that depends on the text only.
uuidFor() {
  printf %s "$1" | sha1sum | sed -E 's/^(.{8})(.{4}).(.{3}).(.{3})(.{12}).*/{\1-\2-5\3-8\4-\5}/' | tr a-f A-F
}

# sign FILE...: signs the files with the key on the token. Does nothing without --sign.
sign() {
  local file engine
  [[ -n $certificates ]] || return 0
  engine=$(find "$(openssl version -e | cut -d'"' -f2)" -name pkcs11.so)
  (umask 077 && head -n 1 "${pinFile:?--sign needs --pin-file}" | tr -d '\r\n' >"$work/pin")
  for file in "$@"; do
    osslsigncode sign -pkcs11engine "$engine" -pkcs11module "$module" -certs "$certificates" \
      -key "${key:?--sign needs --key}" -readpass "$work/pin" -h sha256 -n Tavrin ${timestamp[@]+"${timestamp[@]}"} \
      -in "$file" -out "$work/signed" >&2
    mv "$work/signed" "$file"
  done
  rm "$work/pin"
}

# The folder of the zip. Its documents refer to the examples and headers beside them.
collect() {
  local folder=$work/$name
  mkdir -p "$folder"/{examples,include,src/devlib,TavrinDSC/Certificates}
  cp "$bin"/{TavrinPKCS11,TavrinPKCS11Standard,TavrinDSCLibrary}.dll "$bin"/{tavrin-tool,sign_file,wait_for_token}.exe "$folder/"
  chmod 644 "$folder"/*.{dll,exe}
  sed 's|](\.\./\.\./|](|g' "$here/README.md" >"$folder/README.md"
  cp "$top/CHANGELOG.md" "$folder/"
  cp -R "$top/docs" "$folder/docs"
  cp "$top"/examples/*.{cpp,h} "$folder/examples/"
  cp "$top"/include/*.h "$folder/include/"
  cp "$top"/src/devlib/{device_library,records}.h "$folder/src/devlib/"
  "$top/packaging/licences.sh" "$folder/licences" "${contained[@]}"
  sign "$folder"/*.{dll,exe}
  find "$folder" -exec touch -d "@$epoch" {} +
}

# The part of the installer's source that lists what tavrin.wxs does not name: folders, then a component for each file.
otherFiles() {
  local path id folder
  echo '<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi"><Fragment>'
  find . -mindepth 1 -type d ! -path './TavrinDSC*' -printf '%P\n' | LC_ALL=C sort | while read -r path; do
    echo "<DirectoryRef Id=\"$(folderId "$(dirname "$path")")\">"
    echo "<Directory Id=\"$(folderId "$path")\" Name=\"$(basename "$path")\"/></DirectoryRef>"
  done
  find . -type f ! -name TavrinPKCS11.dll ! -name tavrin-tool.exe -printf '%P\n' | LC_ALL=C sort | while read -r path; do
    id=${path//[!A-Za-z0-9]/_}
    echo "<DirectoryRef Id=\"$(folderId "$(dirname "$path")")\"><Component Id=\"$id\" Guid=\"*\" Win64=\"yes\">"
    echo "<File Id=\"File_$id\" Source=\"$name/$path\" KeyPath=\"yes\"/></Component></DirectoryRef>"
    echo "<ComponentRef Id=\"$id\"/>" >>../group
  done
  echo '<ComponentGroup Id="Others">'
  cat ../group
  echo '</ComponentGroup></Fragment></Wix>'
}
folderId() { if [[ $1 == . ]]; then echo INSTALLDIR; else echo "Folder_${1//[!A-Za-z0-9]/_}"; fi; }

makeZip() {
  rm -f "$out/$name.zip"
  (cd "$work" && find "$name" | LC_ALL=C sort | TZ=UTC zip -q -X "$out/$name.zip" -@)
}

makeInstaller() {
  local code
  code=$(uuidFor "Tavrin $version")
  # place_device_library.exe installs the device library from SoftToken.
  mkdir "$work/$name/SoftToken"
  mv "$work/$name/TavrinDSCLibrary.dll" "$work/$name/SoftToken/"
  cp "$bin/place_device_library.exe" "$here"/{tavrin.wxs,tavrin.ico} "$work/"
  # wixl looks for files only in the folder of its input.
  cd "$work"
  (cd "$name" && otherFiles >../others.wxs)
  wixl --arch x64 -D Version="$version" -D ProductCode="$code" -D Files="$name" -o "$out/$name.msi" tavrin.wxs others.wxs 2>errors
  [[ ! -s errors ]] || { cat errors >&2; exit 1; } # wixl's exit code is 0 for some errors
  # wixl supports neither environment variables nor deferred actions, chooses a random package code, and writes the current time
  # into the file. All this is corrected here.
  msiinfo export "$out/$name.msi" _SummaryInformation |
    sed -E "s|^9\t[^\r]*|9\t$(uuidFor "$(sha256sum <"$out/$name.zip")")|
            s|^(1[23])\t[^\r]*|\1\t$(TZ=UTC date -d "@$epoch" '+%Y/%m/%d %H:%M:%S')|" >summary.idt
  msibuild "$out/$name.msi" -i "$here/environment.idt" "$here/actions.idt" summary.idt \
    -q "INSERT INTO InstallExecuteSequence (Action, Sequence) VALUES ('RemoveEnvironmentStrings', 3300)" \
    -q "INSERT INTO InstallExecuteSequence (Action, Sequence) VALUES ('WriteEnvironmentStrings', 5200)"
  sign "$out/$name.msi"
}

collect
makeZip
makeInstaller
cd "$out"
sha256sum tavrin-*-windows-x64.{zip,msi} >SHA256SUMS
echo "$out/$name.zip"
echo "$out/$name.msi"
