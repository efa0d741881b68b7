#!/bin/bash
# The built module with a chain of certificates that openssl made, and with a token that comes and goes.
source "$(dirname "$0")/common.sh"

# A certificate chain, its upper part in the folder of CA certificates, among files that are none.
cas=home/TavrinDSC/Certificates
mkdir -p $cas
request() { openssl req -newkey rsa:2048 -nodes -keyout "$1.key" -subj "/C=IN/O=Example/CN=$2" "${@:3}" 2>/dev/null; }
sign() { openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -out "$1.pem" 2>/dev/null; }
request root 'Example Root' -x509 -days 30 -out root.pem
request middle 'Example Middle' -out middle.csr && sign middle root
request leaf 'Example Leaf' -out leaf.csr && sign leaf middle
for certificate in root middle leaf; do
  openssl x509 -in $certificate.pem -outform DER -out $certificate.der
done
cp root.pem $cas/root.PEM
cp middle.der $cas/middle.Cer
echo "no certificate" >$cas/broken.crt

createToken first
E2E_UNPLUG="tavrin-tool token unplug first"
E2E_PLUG="tavrin-tool token plug first"
if [[ $E2E_SYSTEM != Windows ]]; then
  E2E_UNPLUG="'$E2E_BIN'/$E2E_UNPLUG" E2E_PLUG="'$E2E_BIN'/$E2E_PLUG"
fi
export E2E_UNPLUG E2E_PLUG WINEPATH=Z:$E2E_BIN
run end_to_end_test
