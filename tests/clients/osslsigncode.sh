#!/bin/bash
# osslsigncode: an Authenticode signature on a Windows program, with a code signing certificate for a key on the token.
source "$(dirname "$0")/lib.sh"

createTokenWithKeys
configureEngine
engine=$(find "$(openssl version -e | cut -d'"' -f2)" -name pkcs11.so)
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.crt -subj /CN=CA -days 30 2>/dev/null
printf 'extendedKeyUsage=codeSigning\nkeyUsage=digitalSignature\n' >extensions
for key in rsa ec; do
  private=${key}Key
  quietly withEngine req -keyform engine -new -key "${!private}" -subj "/CN=Signer $key" -out $key.csr
  quietly openssl x509 -req -in $key.csr -CA ca.crt -CAkey ca.key -CAcreateserial -extfile extensions -days 30 -out $key.crt
  check "sign a program, $key" osslsigncode sign -pkcs11engine "$engine" -pkcs11module "$module" -certs $key.crt \
    -key "pkcs11:object=$key;type=private" -readpass bare-pin -h sha256 -in "$windows/bin/sign_file.exe" -out $key.exe
  shows "verify it" 'Signature verification: ok' osslsigncode verify -CAfile ca.crt -in $key.exe
  { head -c 5000 $key.exe; printf X; tail -c +5002 $key.exe; } >altered.exe
  refuses "verify it altered" 'Signature verification: failed|MISMATCH|mismatch' osslsigncode verify -CAfile ca.crt -in altered.exe
done
