#!/bin/bash
# The packages for Windows under Wine: install, sign with the installed DLL, upgrade, uninstall.
# Called as the clients' tests are: packaging/windows/test_package.sh BUILD_DIR_LINUX BUILD_DIR_WINDOWS
packaging=$(cd "$(dirname "$0")" && pwd)
source "$packaging/../../tests/clients/lib.sh"
startWine
key='HKLM\Software\Quorvane Telemantix\Tavrin'
maker="$WINEPREFIX/drive_c/Program Files/Quorvane Telemantix"
folder=$maker/Tavrin
installer() { wine msiexec "$1" "Z:$work/packages/tavrin-$2-windows-x64.msi" /qn; }
listed() { (cd "$1" && find . -type f | LC_ALL=C sort); }
sign() { # NAME [rsa]
  wine "$windows/bin/sign_file.exe" 'C:\Program Files\Quorvane Telemantix\Tavrin\TavrinPKCS11.dll' env:PIN "my key" document "$@"
}

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$windows/CMakeCache.txt")
check "make the packages" "$packaging/package.sh" "$windows" packages
check "make them again" "$packaging/package.sh" "$windows" again
check "the same bytes" diff -r packages again
check "packages of a later version" "$packaging/package.sh" "$windows" packages 99.0.0
quietly unzip "packages/tavrin-$version-windows-x64.zip"
{
  printf './%s\n' CHANGELOG.md README.md TavrinDSCLibrary.dll TavrinPKCS11.dll tavrin-tool.exe
  (cd "$packaging/../.." && find docs -type f -printf './%p\n')
} | LC_ALL=C sort >expected
listed "tavrin-$version-windows-x64" >found
check "the zip's files" diff expected found

installer /x 99.0.0 >/dev/null || true # what a run that was stopped has left
installer /x "$version" >/dev/null || true
rm -rf "$maker"
check "install" installer /i "$version"
listed "$folder" >found
check "the installed files" diff expected found
check "they are the built ones" cmp "$folder/TavrinPKCS11.dll" "$windows/bin/TavrinPKCS11.dll"
check "the folder for certificates" test -d "$folder/TavrinDSC/Certificates"
shows "the log level" 'logLevel +REG_DWORD +0x2$' wine reg query "$key"
shows "the folder is in PATH" 'Quorvane Telemantix\\Tavrin' wine cmd /c path

# The tool is found through PATH, and tokens lie where they do for every user.
unset TAVRIN_SOFT_TOKENS TAVRIN_HOME
quietly wine cmd /c "rmdir /s /q \"%LOCALAPPDATA%\\Quorvane Telemantix\" 2>nul & exit 0"
shows "the installed tool" 'created mine' wine tavrin-tool token create mine --pin-file pin --so-pin-file so-pin
check "sign with the installed module" sign first rsa
check "openssl verifies" verifySignature first.pem first.sig -sha256

quietly openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -subj /CN=CA -days 30 -out "$folder/TavrinDSC/Certificates/own.pem"
quietly wine reg add "$key" /v logLevel /t REG_DWORD /d 3 /f
check "upgrade" installer /i 99.0.0
shows "one installation" '^1$' eval 'wine reg query "HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall" /s | grep -c "DisplayName.*Tavrin"'
shows "of the new version" 'DisplayVersion.*99.0.0' wine reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s
check "it signs with the same token" sign second
check "openssl verifies" verifySignature first.pem second.sig -sha256
check "the user's certificate is kept" openssl x509 -noout -in "$folder/TavrinDSC/Certificates/own.pem"
check "no downgrade" eval '! installer /i "$version"'

check "uninstall" installer /x 99.0.0
listed "$maker" >found
check "nothing but the user's certificate is left" diff - found <<<'./Tavrin/TavrinDSC/Certificates/own.pem'
refuses "no setting is left" 'Unable to find' wine reg query 'HKLM\Software\Quorvane Telemantix'
shows "PATH is as before" '^0$' eval 'wine cmd /c path | grep -c Tavrin || true'
shows "not known to Windows any more" '^0$' eval 'wine reg query "HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall" /s | grep -c Tavrin || true'
shows "the user's token is kept" mine wine "$windows/bin/tavrin-tool.exe" token list
rm -rf "$maker"
check "install and uninstall at once" eval 'installer /i "$version" && installer /x "$version"'
refuses "no folder is left" 'No such file' ls "$maker"
quietly wine "$windows/bin/tavrin-tool.exe" token remove mine --yes
