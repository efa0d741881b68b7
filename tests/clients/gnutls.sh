#!/bin/bash
# GnuTLS: p11tool, certtool, and a TLS server whose key is on the token.
source "$(dirname "$0")/lib.sh"
export GNUTLS_PIN=$PIN
p11() { p11tool --provider "$module" --batch "$@"; }

createTokenWithKeys
token=pkcs11:serial=$(pkcs11-tool --module "$module" --list-slots | sed -n 's/.*serial num *: //p')

# The module's texts end in NULs, which are part of the URI. A URI without them does not match. The serial number has no NUL.
shows "the token's label in its URI" 'token=Client%20token%00' p11 --list-token-urls
refuses "a URI with the plain label" 'object is not available' \
  p11 --login --generate-privkey=rsa --bits 2048 --label x --outfile x.pem 'pkcs11:token=Client%20token'
shows "two private keys with the PIN" '^2$' eval 'p11 --login --list-privkeys "$token" | grep -c "type=private"'
shows "none without" '^0$' eval 'p11 --list-all "$token" 2>&1 | grep -c "type=private" || true'
check "generate RSA 3072" p11 --login --generate-privkey=rsa --bits 3072 --label generated --id 11 --outfile generated.pem "$token"
check "delete it" p11 --login --delete "$token;object=generated;type=private"
refuses "generating EC gives an RSA key" 'Error in DER parsing' \
  p11 --login --generate-privkey=ecdsa --curve secp256r1 --label mistaken --id 12 --outfile mistaken.pem "$token"
shows "of 2048 bits" 'RSA-2048' p11 --login --list-all "$token;object=mistaken;type=private"

printf '%s\n' 'cn = "localhost"' 'dns_name = "localhost"' 'expiration_days = 30' signing_key cert_signing_key tls_www_server ca >template
for key in rsa ec; do
  private="$token;object=$key;type=private"
  check "p11tool's own signature test, $key" p11 --login --test-sign "$private"
  check "self-signed certificate, $key" certtool --provider "$module" --generate-self-signed --template template \
    --load-privkey "$private" --load-pubkey "$token;object=$key;type=public" --outfile $key.crt
  check "PKCS#7 signature, $key" certtool --provider "$module" --p7-sign --outder --load-privkey "$private" --load-certificate $key.crt \
    --infile document --outfile $key.p7
  check "openssl verifies both" verifyCms $key.p7 $key.crt
  port=$(port)
  background gnutls-serv --provider "$module" --http --port "$port" --x509keyfile "$private" --x509certfile $key.crt
  for version in 1_3 1_2; do
    shows "TLS $version server, $key" 'Verification: OK' \
      eventually openssl s_client -connect "localhost:$port" -tls$version -CAfile $key.crt -verify_return_error -brief
  done
done
