#!/bin/bash
# GnuTLS: p11tool, certtool, and a TLS server whose key is on the token.
source "$(dirname "$0")/lib.sh"
export GNUTLS_PIN=$PIN
p11() { p11tool --provider "$module" --batch "$@"; }
certificates() { certtool --provider "$module" "$@"; }

createTokenWithKeys
serial=$(pkcs11-tool --module "$module" --list-slots | sed -n 's/.*serial num *: //p')
token=pkcs11:serial=$serial

# The module's texts end in NULs, which are part of the URI. A URI without them does not match. The serial number has no NUL.
shows "the token's label in its URI" 'token=Client%20token%00' p11 --list-token-urls
refuses "a URI with the plain label" 'object is not available' \
  p11 --login --generate-privkey=rsa --bits 2048 --label x --outfile x.pem 'pkcs11:token=Client%20token'
shows "two private keys with the PIN" '^2$' eval 'p11 --login --list-privkeys "$token" | grep -c "type=private"'
shows "none without" '^0$' eval 'p11 --list-all "$token" 2>&1 | grep -c "type=private" || true'
shows "22 mechanisms" '^22$' eval 'p11 --list-mechanisms "$token" | grep -c CKM_'
check "random bytes" p11 --generate-random 32 --outfile random "$token"

check "generate RSA 3072" p11 --login --generate-privkey=rsa --bits 3072 --label generated --id 11 --outfile generated.pem "$token"
shows "its size" '3072 bit' openssl pkey -pubin -in generated.pem -noout -text
refuses "generating EC gives an RSA key" 'Error in DER parsing' \
  p11 --login --generate-privkey=ecdsa --curve secp256r1 --label mistaken --id 12 --outfile mistaken.pem "$token"
shows "of 2048 bits" 'RSA-2048' p11 --login --list-all "$token;object=mistaken;type=private"

cat >template <<'END'
cn = "localhost"
dns_name = "localhost"
expiration_days = 30
signing_key
cert_signing_key
tls_www_server
ca
END
for key in rsa ec; do
  private="$token;object=$key;type=private" public="$token;object=$key;type=public"
  check "p11tool's own signature test, $key" p11 --login --test-sign "$private"
  check "self-signed certificate, $key" certificates --generate-self-signed --template template \
    --load-privkey "$private" --load-pubkey "$public" --outfile $key.crt
  check "openssl verifies" openssl verify -CAfile $key.crt $key.crt
  check "request, $key" certificates --generate-request --template template \
    --load-privkey "$private" --load-pubkey "$public" --outfile $key.csr
  check "openssl verifies" openssl req -in $key.csr -verify -noout
  check "PKCS#7 signature, $key" certificates --p7-sign --outder --load-privkey "$private" --load-certificate $key.crt \
    --infile document --outfile $key.p7
  check "openssl verifies" verifyCms $key.p7 $key.crt

  port=$(port)
  background gnutls-serv --provider "$module" --http --port "$port" --x509keyfile "$private" --x509certfile $key.crt
  for version in 1_3 1_2; do
    shows "TLS $version server, $key" 'Verification: OK' \
      eventually openssl s_client -connect "localhost:$port" -tls$version -CAfile $key.crt -verify_return_error -brief
  done
done

check "write a certificate" p11 --login --write --load-certificate rsa.crt --label written --id 01 "$token"
check "export it" p11 --export "$token;object=written;type=cert" --outfile exported.crt
check "it is the same" cmp <(openssl x509 -in rsa.crt -outform DER) <(openssl x509 -in exported.crt -outform DER)
check "delete it" p11 --login --delete "$token;object=written;type=cert"
refuses "it is gone" 'No matching objects' p11 --list-all-certs "$token"
check "delete a key" p11 --login --delete "$token;object=generated;type=private"
