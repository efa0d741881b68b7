#!/bin/bash
# openssl with the pkcs11 engine: certificates, signatures, decryption, and TLS with openssl, curl and stunnel.
source "$(dirname "$0")/lib.sh"

createTokenWithKeys
configureEngine
for key in rsa ec; do
  private=${key}Key private=${!private}
  check "self-signed certificate, $key" selfSigned "$private" $key.crt /CN=localhost -addext subjectAltName=DNS:localhost
  check "openssl verifies" openssl verify -CAfile $key.crt $key.crt
  check "CMS signature, $key" withEngine cms -sign -keyform engine -inkey "$private" -signer $key.crt -binary -nodetach \
    -in document -outform DER -out $key.cms
  check "openssl verifies" verifyCms $key.cms $key.crt
  port=$(port)
  OPENSSL_CONF=$work/engine.cnf background openssl s_server -engine pkcs11 -keyform engine -key "$private" \
    -cert $key.crt -accept "$port" -www
  check "TLS server, $key" eventually curl --silent --fail --cacert $key.crt --output page "https://localhost:$port/"
done
# The salt is as long as the hash, whatever the client asks for.
check "PSS with the longest salt" withEngine dgst -keyform engine -sign "$rsaKey" -sha256 -sigopt rsa_padding_mode:pss \
  -sigopt rsa_pss_saltlen:max -out signature document
check "has 32 bytes of salt" verifySignature rsa.pem signature -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32
openssl cms -encrypt -aes256 -in document -binary -outform DER -out envelope rsa.crt
check "open a CMS envelope" withEngine cms -decrypt -keyform engine -inkey "$rsaKey" -recip rsa.crt -inform DER -in envelope -out plaintext
check "its content" cmp document plaintext

# stunnel in front of a plain server, for services that do not support tokens.
port=$(port)
cat >service.sh <<'END'
while read -r line && [[ $line != $'\r' ]]; do :; done
printf 'HTTP/1.0 200 OK\r\n\r\n' && cat document
END
printf '%s\n' 'foreground = yes' 'pid =' 'engine = pkcs11' "engineCtrl = MODULE_PATH:$module" '[service]' "accept = 127.0.0.1:$port" \
  "exec = $(command -v bash)" 'execArgs = bash service.sh' 'engineNum = 1' "key = $ecKey" "cert = $work/ec.crt" >stunnel.conf
background stunnel4 stunnel.conf
check "stunnel" eventually curl --silent --fail --cacert ec.crt --output received "https://localhost:$port/"
check "what came through" cmp document received
