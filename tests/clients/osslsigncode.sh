#!/bin/bash
# osslsigncode: an Authenticode signature on a Windows program, with a code signing certificate for a key on the token.
source "$(dirname "$0")/lib.sh"

createTokenWithKeys
engine=$(find "$(openssl version -e | cut -d'"' -f2)" -name pkcs11.so)
for key in rsa ec; do
  issue $key.pem $key.crt "/CN=Signer $key" extendedKeyUsage=codeSigning keyUsage=digitalSignature
  check "sign a program, $key" osslsigncode sign -pkcs11engine "$engine" -pkcs11module "$module" -certs $key.crt \
    -key "pkcs11:object=$key;type=private" -readpass bare-pin -h sha256 -in "$windows/bin/sign_file.exe" -out $key.exe
  shows "verify it" 'Signature verification: ok' osslsigncode verify -CAfile ca.crt -in $key.exe
  { head -c 5000 $key.exe; printf X; tail -c +5002 $key.exe; } >altered.exe
  refuses "verify it altered" 'Signature verification: failed|MISMATCH|mismatch' osslsigncode verify -CAfile ca.crt -in altered.exe
done
