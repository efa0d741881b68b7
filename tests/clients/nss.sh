#!/bin/bash
# NSS, which Firefox and Thunderbird are built on: modutil, certutil, cmsutil and pk12util.
source "$(dirname "$0")/lib.sh"
token="Client token"
certs() { certutil "$1" -d db -h "$token" -f pin "${@:2}"; }

createTokenWithKeys
mkdir db
quietly certutil -N -d db --empty-password
shows "add the module" 'Module "tavrin" added' modutil -dbdir db -force -add tavrin -libfile "$module"
shows "its URI has no NULs" 'pkcs11:token=Client%20token;' certutil -U -d db
check "generate RSA with a certificate" certs -S -x -z document -n nssrsa -s "CN=NSS RSA,E=rsa@example.com" -t CT,CT,CT -g 2048 -k rsa -m 1
refuses "generating EC gives an RSA key" SEC_ERROR_BAD_DATA certs -S -x -z document -n nssec -s "CN=NSS EC" -t ,, -k ec -q nistp256 -m 2
shows "without a certificate" 'rsa +[0-9a-f]{40} +\(orphan\)' certs -K
# NSS finds a certificate's key by an ID that is the SHA-1 of its modulus or point.
id=$(openssl pkey -pubin -in ec.pem -outform DER | tail -c 65 | sha1sum | cut -c 1-40)
check "give the EC key the ID that NSS expects" loggedIn --set-id "$id" --type privkey --id 02
check "certificate for it" certs -S -x -n nssec -s "CN=NSS EC,E=ec@example.com" -t CT,CT,CT -k "$id" -m 3
for name in nssrsa nssec; do
  shows "NSS knows $name as the user's own" "^$token:$name +CTu,Cu,Cu" certs -L
  quietly certs -L -n "$token:$name" -a -o $name.pem
  check "CMS signature" cmsutil -S -d db -f pin -N "$token:$name" -i document -o $name.cms -H SHA256
  check "openssl verifies" verifyCms $name.cms $name.pem
done
openssl cms -encrypt -aes256 -in document -binary -outform DER -out envelope nssrsa.pem
check "open a CMS envelope" cmsutil -D -d db -f pin -i envelope -o plaintext
check "its content" cmp document plaintext

openssl req -x509 -newkey rsa:2048 -nodes -keyout own.key -subj /CN=Imported -days 30 -out own.crt 2>/dev/null
openssl pkcs12 -export -inkey own.key -in own.crt -name imported -passout file:pin -out own.p12
check "import a PKCS#12 file" pk12util -i own.p12 -d db -h "$token" -k pin -w pin
shows "key and certificate belong together" "^$token:imported +u,u,u" certs -L
check "delete a certificate" certutil -D -d db -f pin -n "$token:nssec"
check "delete a key" certs -F -k "$id"
shows "it is gone" '^0$' eval 'certs -K | grep -c "$id" || true'
