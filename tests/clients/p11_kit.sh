#!/bin/bash
# p11-kit: the module as an installation registers it, its tools' view of the token, and the module in a server process.
source "$(dirname "$0")/lib.sh"

createTokenWithKeys
check "install" cmake --install "$linux" --prefix "$work/usr"
check "with the manual page and the completion" test -s usr/share/man/man1/tavrin-tool.1 -a -s usr/share/bash-completion/completions/tavrin-tool
registration=$(find usr -name tavrin.module)
shows "the module file names the installed module" "^module: $work/usr/lib.*/libtavrin-pkcs11-standard.so$" cat "$registration"
# p11-kit reads module files from a fixed folder only. A mount namespace puts the installed folder in its place.
registered() {
  unshare --user --map-root-user --mount sh -ec 'mount --bind "$1" /usr/share/p11-kit/modules; shift; exec "$@"' sh "$(dirname "$registration")" "$@"
}
shows "p11-kit lists the module with its token" 'token: Client token' registered p11-kit list-modules
shows "every GnuTLS program has it" 'Label: Client token' registered p11tool --list-tokens
shows "and every program that loads the proxy" 'Client token' registered pkcs11-tool --module "$(find /usr/lib -name p11-kit-proxy.so | head -1)" --list-slots

eval "$(p11-kit server --provider "$module" --name "$work/p11-kit" "pkcs11:")"
servers+=("$P11_KIT_SERVER_PID")
remote() { pkcs11-tool --module "$(find /usr/lib -name p11-kit-client.so | head -1)" --login --pin env:PIN "$@"; }
openssl dgst -sha256 -binary -out digest document
# The protocol of p11-kit 0.24 does not have ECDSA with a hash.
for row in "01 rsa SHA256-RSA-PKCS document" "02 ec ECDSA digest"; do
  read -r id key mechanism input <<<"$row"
  # p11-kit's protocol cannot transfer attributes that read as empty. The client continues without that attribute.
  shows "sign over the server, $key" 'ALWAYS_AUTHENTICATE.*CKR_DEVICE_ERROR' remote --sign --mechanism "$mechanism" --id "$id" \
    --signature-format openssl --input-file "$input" --output-file signature
  check "openssl verifies" verifySignature $key.pem signature -sha256
done
