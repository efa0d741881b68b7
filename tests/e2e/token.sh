#!/bin/bash
# The whole life of a token through the built module: openssl prepares keys, certificates and ciphertexts, the test
# program works with them, and openssl checks everything that it wrote.
source "$(dirname "$0")/common.sh"

head -c 100000 /dev/urandom >data
head -c 100 data >short
for hash in sha1 sha256 sha384 sha512; do
  openssl dgst -$hash -binary -out data.$hash data
done

# A key for import: modulus, private exponent and prime. And what openssl encrypted for it.
openssl genrsa -traditional -out imported.key 2048 2>/dev/null
openssl asn1parse -in imported.key | sed -n 's/.*INTEGER *://p' >numbers
for part in 2:n 4:d 5:p; do
  printf '%b' "$(sed -n "${part%:*}s/../\\\\x&/gp" numbers)" >"imported.${part#*:}"
done
openssl rsa -in imported.key -pubout -out imported.pem 2>/dev/null
for padding in pkcs1 oaep; do
  openssl pkeyutl -encrypt -pubin -inkey imported.pem -pkeyopt rsa_padding_mode:$padding -in short -out openssl.$padding
done

# The other parties of the key agreements; the point is the end of the public key's DER.
for curve in 256:65 384:97 521:133; do
  name=p${curve%:*}
  openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-${curve%:*} -out peer.$name.key
  openssl pkey -in peer.$name.key -pubout -outform DER | tail -c "${curve#*:}" >peer.$name.point
done

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
# On the small stack that plug-in hosts may give; sanitizers need more. Wine has stacks of its own.
[[ -n $E2E_SANITIZERS || $E2E_SYSTEM == Windows ]] || ulimit -s 64
run end_to_end_test

# Each line holds the arguments of one openssl command that has to succeed.
[[ $(wc -l <openssl.txt) == 45 ]] || fail "the test program left $(wc -l <openssl.txt) results to check"
while read -r -a arguments; do
  openssl "${arguments[@]}" >openssl.out 2>&1 || fail "openssl ${arguments[*]}: $(cat openssl.out)"
done < <(tr -d '\r' <openssl.txt)

for padding in pkcs1 oaep; do
  openssl pkeyutl -decrypt -inkey imported.key -pkeyopt rsa_padding_mode:$padding -in module.$padding | cmp - short
done
for name in p256 p384 p521; do
  openssl pkeyutl -derive -inkey peer.$name.key -peerkey $name.pem -out secret
  cmp secret secret.$name
  openssl dgst -sha1 -binary secret | cmp - secret.$name.sha1
  openssl dgst -sha384 -binary secret | cmp - secret.$name.sha256  # the module asks for this hash, see the documents
done
echo "openssl agrees with all of it"
