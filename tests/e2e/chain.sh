#!/bin/bash
# A certificate is imported with its chain. The certificate authorities' certificates are in a folder, among other files.
source "$(dirname "$0")/common.sh"

cas=home/TavrinDSC/Certificates
mkdir -p $cas
request() { openssl req -newkey rsa:2048 -nodes -keyout "$1.key" -subj "/C=IN/O=Example/CN=$2" "${@:3}" 2>/dev/null; }
sign() { openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -out "$1.pem" 2>/dev/null; }
request root 'Example Root' -x509 -days 30 -out $cas/root.PEM
cp $cas/root.PEM root.pem
request middle 'Example Middle' -out middle.csr && sign middle root
openssl x509 -in middle.pem -outform DER -out $cas/middle.Cer
request leaf 'Example Leaf' -out leaf.csr && sign leaf middle
openssl x509 -in leaf.pem -outform DER -out leaf.der
echo "no certificate" >$cas/broken.crt

createToken first
for time in first second; do
  run import_certificate leaf.der 01 "my certificate"
  # Root first, and issuers carry their common names as labels. What is there already is not written again.
  run tavrin-tool token show first | grep '^certificate' | sed 's/  */ /g' | diff - <(
    echo 'certificate 1 CN=Example Root,O=Example,C=IN Example Root'
    echo 'certificate 2 CN=Example Middle,O=Example,C=IN Example Middle'
    echo 'certificate 3 CN=Example Leaf,O=Example,C=IN my certificate 01'
  ) || fail "the $time import"
done
