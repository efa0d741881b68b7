#!/bin/bash
# Tests the packages for Windows under Wine: the unpacked zip; install, repair, upgrade and uninstall; signed packages.
# It has the arguments of the clients' tests: packaging/windows/test_package.sh BUILD_DIR_LINUX BUILD_DIR_WINDOWS
packaging=$(cd "$(dirname "$0")" && pwd)
source "$packaging/../../tests/clients/lib.sh"
startWine
key='HKLM\Software\Quorvane Telemantix\Tavrin'
environment='HKLM\SYSTEM\CurrentControlSet\Control\Session Manager\Environment'
uninstall='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
maker="$WINEPREFIX/drive_c/Program Files/Quorvane Telemantix"
folder=$maker/Tavrin
installer() { # OPTION VERSION [PROPERTY...]
  wine msiexec "$1" "Z:$work/packages/tavrin-$2-windows-x64.msi" "${@:3}" /qn
}
repair=(REINSTALL=ALL REINSTALLMODE=amus)
listed() { (cd "$1" && find . -type f | LC_ALL=C sort); }
systemPath() { wine reg query "$environment" /v PATH; }
sign() { # NAME [rsa]: with the installed module
  wine "$windows/bin/sign_file.exe" 'C:\Program Files\Quorvane Telemantix\Tavrin\TavrinPKCS11.dll' env:PIN "my key" document "$@"
}
brokenLinks() { # FOLDER: relative links in its documents to files that do not exist
  local document link
  find "$1" \( -name build -o -name '.?*' \) -prune -o -name '*.md' -print | while read -r document; do
    { grep -oE '\]\([^)#:]+' "$document" || true; } | cut -c3- | while read -r link; do
      [[ -e $(dirname "$document")/$link ]] || echo "$document: $link"
    done
  done
}

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$windows/CMakeCache.txt")
check "make the packages" "$packaging/package.sh" "$windows" packages
check "make them again" "$packaging/package.sh" "$windows" again
check "the same bytes" diff -r packages again
check "packages of a later version" "$packaging/package.sh" "$windows" packages 99.0.0
check "SHA256SUMS" eval '(cd packages && sha256sum --check --strict SHA256SUMS && [[ $(wc -l <SHA256SUMS) == 4 ]])'

quietly unzip "packages/tavrin-$version-windows-x64.zip"
zip=$work/tavrin-$version-windows-x64
for file in TavrinPKCS11.dll TavrinPKCS11Standard.dll TavrinDSCLibrary.dll tavrin-tool.exe include/pkcs11.h examples/sign_file.cpp; do
  [[ -f $zip/$file ]] || echo "$file"
done >missing
brokenLinks "$zip" >>missing
check "the zip has what its documents name" diff /dev/null missing
check "and begins with Windows" eval 'head -n 1 "$zip/README.md" | grep Windows'
brokenLinks "$packaging/../.." >missing
check "links of the project's documents" diff /dev/null missing
shows "the notices" 'GNU Lesser|LGPL' cat "$zip"/licences/*gcrypt*.txt
shows "the licences that they refer to" 'LESSER GENERAL PUBLIC LICENSE' cat "$zip/licences/LGPL-2.1.txt"
mv "$zip" "$work/un packed"
shows "the zip's tool" 'created zip' wine "$work/un packed/tavrin-tool.exe" token create zip --pin-file pin --so-pin-file so-pin
check "the zip works where it is unpacked" eval '(cd "un packed" &&
  wine sign_file.exe TavrinPKCS11.dll env:PIN "my key" ../document ../zip rsa)'
check "openssl verifies" verifySignature zip.pem zip.sig -sha256
quietly wine "$work/un packed/tavrin-tool.exe" token remove zip --yes

installer /x 99.0.0 >/dev/null || true # an earlier run that was stopped may have left it
installer /x "$version" >/dev/null || true
rm -rf "$maker"
systemPath >path-before
check "install" installer /i "$version"
{ (cd "un packed" && find . -type f) | sed 's|\./TavrinDSCLibrary.dll|&\n./SoftToken/TavrinDSCLibrary.dll|'; } | LC_ALL=C sort >expected
listed "$folder" >found
check "the installed files are the zip's" diff expected found
check "they are the built ones" cmp "$folder/TavrinPKCS11.dll" "$windows/bin/TavrinPKCS11.dll"
check "the folder for certificates" test -d "$folder/TavrinDSC/Certificates"
shows "the log level" 'logLevel +REG_DWORD +0x2$' wine reg query "$key"
shows "the folder is in PATH" 'Quorvane Telemantix\\Tavrin' wine cmd /c path
shows "TAVRIN_HOME" 'Quorvane Telemantix\\Tavrin' wine reg query "$environment" /v TAVRIN_HOME
shows "Apps: the publisher" 'Publisher.*Quorvane Telemantix' wine reg query "$uninstall" /s
shows "Apps: the icon" 'tavrin.ico' msiinfo export "packages/tavrin-$version-windows-x64.msi" Icon

# The tool is found through PATH, and tokens are in the default folder.
unset TAVRIN_SOFT_TOKENS TAVRIN_HOME
quietly wine cmd /c "rmdir /s /q \"%LOCALAPPDATA%\\Quorvane Telemantix\" 2>nul & exit 0"
shows "the installed tool" 'created mine' wine tavrin-tool token create mine --pin-file pin --so-pin-file so-pin
check "sign with the installed module" sign first rsa
check "openssl verifies" verifySignature first.pem first.sig -sha256

rm "$folder"/{TavrinDSCLibrary.dll,tavrin-tool.exe}
check "repair" installer /i "$version" "${repair[@]}"
listed "$folder" >found
check "the files are back" diff expected found

quietly openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -subj /CN=CA -days 30 -out "$folder/TavrinDSC/Certificates/own.pem"
quietly wine reg add "$key" /v logLevel /t REG_DWORD /d 3 /f
background "$here/../../scripts/wine.sh" "$windows/bin/wait_for_token.exe" \
  'C:\Program Files\Quorvane Telemantix\Tavrin\TavrinPKCS11.dll' 2
quietly eventually grep -q . "$work/server-output"
check "upgrade while a program has the module loaded" eval 'installer /i 99.0.0 || [[ $? == 194 ]]' # 3010: restart wanted
shows "one installation" '^1$' eval 'wine reg query "$uninstall" /s | grep -c "DisplayName.*Tavrin"'
shows "of the new version" 'DisplayVersion.*99.0.0' wine reg query "$uninstall" /s
check "the program continues" eval 'wine tavrin-tool token unplug mine && eventually grep "^0 token" "$work/server-output"'
quietly wine tavrin-tool token plug mine
check "the new version signs with the same token" sign second
check "openssl verifies" verifySignature first.pem second.sig -sha256
check "the user's certificate is kept" openssl x509 -noout -in "$folder/TavrinDSC/Certificates/own.pem"
check "no downgrade" eval '! installer /i "$version"'

check "uninstall" installer /x 99.0.0
listed "$maker" | grep -v '\.old$' >found # loaded at the upgrade, deleted at the next restart
check "nothing but the user's certificate is left" diff - found <<<'./Tavrin/TavrinDSC/Certificates/own.pem'
refuses "no setting is left" 'Unable to find' wine reg query 'HKLM\Software\Quorvane Telemantix'
refuses "no TAVRIN_HOME is left" 'Unable to find' wine reg query "$environment" /v TAVRIN_HOME
systemPath >path-after
check "PATH is as before" diff path-before path-after
shows "not known to Windows any more" '^0$' eval 'wine reg query "$uninstall" /s | grep -c Tavrin || true'
shows "the user's token is kept" mine wine "$windows/bin/tavrin-tool.exe" token list
quietly wine "$windows/bin/tavrin-tool.exe" token remove mine --yes
rm -rf "$maker"

quietly installer /i "$version"
cp "$windows/bin/plain_load.exe" "$folder/TavrinDSCLibrary.dll" # any file that is not the software token
for action in "/i $version ${repair[*]}" "/i 99.0.0" "/x 99.0.0"; do
  check "msiexec $action keeps a maker's device library" eval 'installer $action &&
    cmp "$windows/bin/plain_load.exe" "$folder/TavrinDSCLibrary.dll"'
done
rm -rf "$maker"
check "install and uninstall at once" eval 'installer /i "$version" && installer /x "$version"'
refuses "no folder is left" 'No such file' ls "$maker"

# Signed with a key on a token, through the module, and stamped by a time stamp server.
export TAVRIN_SOFT_TOKENS=$work/tokens TAVRIN_HOME=$work/tavrin-home no_proxy=127.0.0.1
createToken
generate 01 release rsa:2048
certificateAuthority
issue release.pem release.crt /CN=Release extendedKeyUsage=codeSigning keyUsage=digitalSignature
serverCertificate /CN=Stamps extendedKeyUsage=critical,timeStamping
printf '%s\n' '[tsa]' 'default_tsa = this' '[this]' "serial = $work/stamps" 'default_policy = 1.2.3.4' 'digests = sha256' \
  'signer_digest = sha256' 'ess_cert_id_alg = sha256' "signer_cert = $work/server.crt" "signer_key = $work/server.key" >tsa.cnf
cat >tsa.py <<'END'
import http.server, subprocess, sys
class Stamps(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        open("query", "wb").write(self.rfile.read(int(self.headers["Content-Length"])))
        subprocess.run(["openssl", "ts", "-reply", "-config", "tsa.cnf", "-queryfile", "query", "-out", "reply"], check=True)
        self.send_response(200)
        self.send_header("Content-Type", "application/timestamp-reply")
        self.end_headers()
        self.wfile.write(open("reply", "rb").read())
http.server.HTTPServer(("127.0.0.1", int(sys.argv[1])), Stamps).serve_forever()
END
port=$(port)
background /usr/bin/python3 tsa.py "$port"
check "signed packages" "$packaging/package.sh" --sign release.crt --key "pkcs11:object=release;type=private" --pin-file pin \
  --module "$module" --timestamp "http://127.0.0.1:$port" "$windows" signed
quietly unzip "signed/tavrin-$version-windows-x64.zip" -d signed
for file in signed/*.msi signed/*/*.{dll,exe}; do
  shows "signature and time stamp of $(basename "$file")" 'Timestamp Server Signature verification: ok' \
    osslsigncode verify -CAfile ca.crt -TSA-CAfile ca.crt -in "$file"
done
check "their SHA256SUMS" eval '(cd signed && sha256sum --check --strict SHA256SUMS)'
