#!/bin/bash
# gpgsm over gnupg-pkcs11-scd: S/MIME signatures and decryption.
source "$(dirname "$0")/lib.sh"
useStandard

createTokenWithKeys
clientCertificate rsa 01
mkdir -m 700 ~/.gnupg
printf '%s\n' '#!/bin/bash' 'echo OK' 'while read -r line; do' \
  "  [[ \$line != GETPIN* ]] || sed 's/^/D /' '$work/pin'" '  echo OK' 'done' >pinentry
chmod +x pinentry
echo "pinentry-program $work/pinentry" >~/.gnupg/gpg-agent.conf
recipe gpgsm
# gpgsm must not look for revocation lists on the network, or ask the user whether to trust the authority.
echo disable-crl-checks >~/.gnupg/gpgsm.conf
echo "$(openssl x509 -in ca.crt -noout -fingerprint -sha1 | cut -d= -f2) S relax" >~/.gnupg/trustlist.txt
quietly gpgconf --reload gpg-agent
# GnuPG 2.2 writes a zero byte before a signature whose first bit is set, and OpenSSL refuses that. The signed data include
# the time, so the test signs again, in another second, until the first bit is clear.
sign() { gpgsm --yes --local-user 'CN=User rsa' --output signed.cms --sign document; }
check "sign" sign
shows "gpgsm verifies" 'Good signature' gpgsm --verify signed.cms
signForOpenssl() { verifyCms signed.cms ca.crt || { sleep 1 && sign && false; }; }
check "openssl verifies" eventually signForOpenssl
openssl cms -encrypt -aes256 -in document -binary -outform DER -out envelope rsa.crt
check "decrypt" gpgsm --output plaintext --decrypt envelope
check "the plaintext" cmp document plaintext
quietly gpgconf --kill gpg-agent
