#!/bin/bash
# OpenSC's pkcs11-tool: its commands, its own tests, and what it reports of refusals. openssl checks all results.
source "$(dirname "$0")/lib.sh"
client() { pkcs11-tool --module "$module" "$@"; }
sign() { # MECHANISM ID FILE [OPTION...]
  loggedIn --sign --signature-format openssl --output-file signature --mechanism "$1" --id "$2" --input-file "$3" "${@:4}"
}

createTokenWithKeys
generate 03 p384 EC:secp384r1
generate 04 p521 EC:secp521r1
shows "the token in its slot" 'Slot 0 \(0x50000001\): Client token' client --list-slots
shows "no private key without the PIN" '^0$' eval 'client --list-objects --type privkey | grep -c "Private Key Object" || true'

# Every signature mechanism with every key, in one call and, since the client sends what is longer than 1 KiB so, in parts.
head -c 5000 /dev/urandom >long
everySignature() { # HASH
  local name=${1^^} id key mechanism input signed options hash pss='-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest'
  openssl dgst "-$1" -binary -out digest document
  while read -r id key mechanism input signed options; do
    [[ $mechanism != ECDSA-SHA512 ]] || continue # the token does not have it
    hash=()
    [[ $mechanism != RSA-PKCS-PSS ]] || hash=(--hash-algorithm "${name/SHA1/SHA-1}")
    sign "$mechanism" "$id" "$input" "${hash[@]}" &&
      openssl dgst "-$1" -verify "$key.pem" -signature signature $options "$signed" || return 1
  done < <(
    for row in "RSA-PKCS digest document" "$name-RSA-PKCS document document" "$name-RSA-PKCS long long" \
      "RSA-PKCS-PSS digest document $pss" "$name-RSA-PKCS-PSS long long $pss"; do echo "01 rsa $row"; done
    for key in "02 ec" "03 p384" "04 p521"; do
      printf "$key %s\n" "ECDSA digest document" "ECDSA-$name document document" "ECDSA-$name long long"
    done
  )
}
for hash in sha1 sha256 sha384 sha512; do check "every signature with $hash" everySignature $hash; done
sign ECDSA-SHA256 02 document >/dev/null 2>&1
verify() { loggedIn --verify --mechanism ECDSA-SHA256 --signature-format openssl --id 02 --signature-file signature --input-file "$1"; }
shows "verify" 'Signature is valid' verify document
shows "a wrong signature" 'Invalid signature' verify pin
for row in "02 ec P-256" "03 p384 P-384" "04 p521 P-521"; do
  read -r id key curve <<<"$row"
  openssl genpkey -algorithm EC -pkeyopt "ec_paramgen_curve:$curve" -outform DER -out peer.der
  openssl pkey -inform DER -in peer.der -pubout -outform DER -out peer-public.der
  openssl pkeyutl -derive -inkey peer.der -keyform DER -peerkey "$key.pem" -out expected
  check "ECDH, $curve" loggedIn --derive --mechanism ECDH1-DERIVE --id "$id" --input-file peer-public.der --output-file secret
  check "the same secret as openssl" cmp expected secret
done

openssl genrsa -traditional -out own.key 2>/dev/null
openssl rsa -in own.key -traditional -outform DER -out own.der 2>/dev/null
openssl rsa -in own.key -pubout -out own.pem 2>/dev/null
check "import an RSA key" loggedIn --write-object own.der --type privkey --label own --id 09
refuses "its ID is the token's choice, not the given one" 'Private key not found' sign SHA256-RSA-PKCS 09 document
id=$(loggedIn --list-objects --type privkey 2>/dev/null | grep -A1 'own$' | sed -n 's/.*ID: *//p')
check "give it an ID" loggedIn --set-id 0a --type privkey --id "$id"
check "sign with it" sign SHA256-RSA-PKCS 0a document
check "openssl verifies" verifySignature own.pem signature -sha256
decrypt() { # MECHANISM OPENSSL-OPTION...
  openssl pkeyutl -encrypt -pubin -inkey own.pem "${@:2}" -in document -out ciphertext
  loggedIn --decrypt --mechanism "$1" --id 0a --input-file ciphertext --output-file plaintext "${hash[@]}" && cmp document plaintext
}
hash=()
check "decrypt PKCS#1 v1.5" decrypt RSA-PKCS
hash=(--hash-algorithm SHA-1)
check "decrypt OAEP" decrypt RSA-PKCS-OAEP -pkeyopt rsa_padding_mode:oaep
# The client tries once more after the failure; the module refuses the second C_DecryptInit.
hash=(--hash-algorithm SHA256)
refuses "OAEP with another hash than SHA-1" 'C_DecryptInit failed.*CKR_OPERATION_ACTIVE' \
  decrypt RSA-PKCS-OAEP -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256
refuses "import of data" CKR_FUNCTION_NOT_SUPPORTED loggedIn --write-object document --type data --label x
refuses "deleting a public key" CKR_OBJECT_HANDLE_INVALID loggedIn --delete-object --type pubkey --id 0a
check "deleting the private key" loggedIn --delete-object --type privkey --id 0a
refuses "the public key was deleted with it" 'object not found' loggedIn --read-object --type pubkey --id 0a
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
