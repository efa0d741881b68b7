#!/bin/bash
# openssl with the pkcs11 engine: certificates, CMS, raw operations, and TLS with openssl, curl and stunnel.
source "$(dirname "$0")/lib.sh"

createTokenWithKeys
configureEngine
shows "the engine starts" '\[ available \]' env OPENSSL_CONF=engine.cnf openssl engine -t pkcs11
for key in rsa ec; do
  private=${key}Key private=${!private}
  check "self-signed certificate, $key" selfSigned "$private" $key.crt /CN=localhost -addext subjectAltName=DNS:localhost
  check "openssl verifies" openssl verify -CAfile $key.crt $key.crt
  check "request, $key" withEngine req -keyform engine -new -key "$private" -subj /CN=request -out $key.csr
  check "openssl verifies" openssl req -in $key.csr -verify -noout
  check "CMS signature, $key" withEngine cms -sign -keyform engine -inkey "$private" -signer $key.crt -binary -nodetach \
    -in document -outform DER -out $key.cms
  check "openssl verifies" verifyCms $key.cms $key.crt
  check "bare signature, $key" withEngine dgst -keyform engine -sign "$private" -sha256 -out signature document
  check "openssl verifies" verifySignature $key.pem signature -sha256

  port=$(port)
  OPENSSL_CONF=$work/engine.cnf background openssl s_server -engine pkcs11 -keyform engine -key "$private" \
    -cert $key.crt -accept "$port" -www
  check "TLS server, $key" eventually curl --silent --fail --cacert $key.crt --output page "https://localhost:$port/"
done

# The salt is as long as the hash, whatever the client asks for.
for salt in max 20; do
  check "PSS with salt $salt" withEngine dgst -keyform engine -sign "$rsaKey" -sha256 -sigopt rsa_padding_mode:pss \
    -sigopt rsa_pss_saltlen:$salt -out signature document
  check "has 32 bytes of salt" verifySignature rsa.pem signature -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32
done

openssl pkeyutl -encrypt -pubin -inkey rsa.pem -in document -out ciphertext
check "decrypt" withEngine pkeyutl -decrypt -keyform engine -inkey "$rsaKey" -in ciphertext -out plaintext
check "the plaintext" cmp document plaintext
openssl cms -encrypt -aes256 -in document -binary -outform DER -out envelope rsa.crt
check "open a CMS envelope" withEngine cms -decrypt -keyform engine -inkey "$rsaKey" -recip rsa.crt -inform DER -in envelope -out plaintext
check "its content" cmp document plaintext

openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out peer.key
openssl pkey -in peer.key -pubout -out peer.pem
openssl pkeyutl -derive -inkey peer.key -peerkey ec.pem -out expected
check "ECDH" withEngine pkeyutl -derive -keyform engine -inkey "$ecKey" -peerkey peer.pem -out secret
check "the same secret" cmp expected secret

# stunnel in front of a plain server, for services that do not support tokens.
port=$(port)
cat >service.sh <<'END'
while read -r line && [[ $line != $'\r' ]]; do :; done
printf 'HTTP/1.0 200 OK\r\n\r\n'
cat document
END
cat >stunnel.conf <<END
foreground = yes
pid =
engine = pkcs11
engineCtrl = MODULE_PATH:$module
[service]
accept = 127.0.0.1:$port
exec = $(command -v bash)
execArgs = bash service.sh
engineNum = 1
key = $ecKey
cert = $work/ec.crt
END
background stunnel4 stunnel.conf
check "stunnel" eventually curl --silent --fail --cacert ec.crt --output received "https://localhost:$port/"
check "what came through" cmp document received
