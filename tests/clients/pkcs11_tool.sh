#!/bin/bash
# OpenSC's pkcs11-tool: its commands, its own tests, and what it reports of refusals.
source "$(dirname "$0")/lib.sh"
client() { pkcs11-tool --module "$module" "$@"; }
sign() { loggedIn --sign --signature-format openssl --output-file signature --mechanism "$1" --id "$2" --input-file "$3"; }

createTokenWithKeys
shows "the token in its slot" 'Slot 0 \(0x50000001\): Client token' client --list-slots
shows "no private key without the PIN" '^0$' eval 'client --list-objects --type privkey | grep -c "Private Key Object" || true'

for row in "SHA256-RSA-PKCS-PSS 01 rsa -sigopt rsa_padding_mode:pss" "ECDSA-SHA256 02 ec"; do
  read -r mechanism id key options <<<"$row"
  check "sign with $mechanism" sign "$mechanism" "$id" document
  check "openssl verifies" verifySignature "$key.pem" signature -sha256 $options
done
verify() { loggedIn --verify --mechanism ECDSA-SHA256 --signature-format openssl --id 02 --signature-file signature --input-file "$1"; }
shows "verify" 'Signature is valid' verify document
shows "a wrong signature" 'Invalid signature' verify pin
decrypt() { # HASH: OAEP with it
  openssl pkeyutl -encrypt -pubin -inkey rsa.pem -pkeyopt rsa_padding_mode:oaep -pkeyopt "rsa_oaep_md:$1" -in document -out ciphertext
  loggedIn --decrypt --mechanism RSA-PKCS-OAEP --hash-algorithm "${1/SHA1/SHA-1}" --id 01 --input-file ciphertext --output-file plaintext
}
check "decrypt" eval 'decrypt SHA1 && cmp document plaintext'
# The client tries once more after the failure; the module refuses the second C_DecryptInit.
refuses "OAEP with another hash than SHA-1" 'C_DecryptInit failed.*CKR_OPERATION_ACTIVE' decrypt SHA256
openssl genrsa -traditional 2>/dev/null | openssl rsa -traditional -outform DER -out own.der 2>/dev/null
check "import an RSA key" loggedIn --write-object own.der --type privkey --label own --id 09
refuses "its ID is the token's choice, not the given one" 'Private key not found' sign SHA256-RSA-PKCS 09 document
id=$(loggedIn --list-objects --type privkey 2>/dev/null | grep -A1 'own$' | sed -n 's/.*ID: *//p')
check "give it an ID" loggedIn --set-id 0a --type privkey --id "$id"
check "sign with it" sign SHA256-RSA-PKCS 0a document
refuses "import of data" CKR_FUNCTION_NOT_SUPPORTED loggedIn --write-object document --type data --label x
refuses "deleting a public key" CKR_OBJECT_HANDLE_INVALID loggedIn --delete-object --type pubkey --id 0a
check "deleting the private key" loggedIn --delete-object --type privkey --id 0a
refuses "the public key went with it" 'object not found' loggedIn --read-object --type pubkey --id 0a
refuses "a wrong PIN" CKR_PIN_INCORRECT env PIN=wrong pkcs11-tool --module "$module" --login --pin env:PIN --list-objects

# These complaints are deliberate departures: no empty requests, no comparison of buffer sizes, OAEP with SHA-1 only.
loggedIn --test 2>&1 | grep -E '^ *(ERR|error):' >complaints || true
check "--test has no other complaints" diff -w - <(sort complaints) <<'END'
ERR: C_Digest() didn't return CKR_BUFFER_TOO_SMALL but CKR_OK (0x0)
ERR: C_Digest() didn't return CKR_OK for a NULL output buffer, but CKR_OPERATION_NOT_INITIALIZED (0x91)
ERR: C_GenerateRandom(buf1,0) failed: CKR_ARGUMENTS_BAD (0x7)
ERR: digest operation ended prematurely
error: PKCS11 function C_Decrypt failed: rv = CKR_FUNCTION_FAILED (0x6)
END
check "--test-fork" loggedIn --test-fork
check "--test-threads" loggedIn --test-threads IN --test-threads GI
check "change the PIN" env NEW_PIN=other-pin pkcs11-tool --module "$module" --login --pin env:PIN --change-pin --new-pin env:NEW_PIN
check "and use it" env PIN=other-pin pkcs11-tool --module "$module" --login --pin env:PIN --list-objects
