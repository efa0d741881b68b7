#!/bin/bash
# OpenSC's pkcs11-tool: all its commands that the module supports, and its refusals of the others.
source "$(dirname "$0")/lib.sh"
client() { pkcs11-tool --module "$module" "$@"; }

createToken
shows "the token in its slot" 'Slot 0 \(0x50000001\): Client token' client --list-slots
shows "22 mechanisms" '^22$' eval 'client --list-mechanisms | grep -c keySize\\\|digest'
while read -r id label type; do
  check "generate $type" loggedIn --keypairgen --id "$id" --label "$label" --key-type "$type"
  quietly publicKey "$id" "$label.pem"
done <<'END'
01 rsa rsa:2048
02 ec EC:prime256v1
03 ec521 EC:secp521r1
END
check "read a public key" loggedIn --read-object --type pubkey --id 01 --output-file rsa.der
check "it is the same as p11tool's" cmp rsa.der <(openssl pkey -pubin -in rsa.pem -outform DER)
shows "list the private keys" '^3$' eval 'loggedIn --list-objects --type privkey | grep -c "Private Key Object"'
shows "no private key without the PIN" '^0$' eval 'client --list-objects --type privkey | grep -c "Private Key Object" || true'

openssl dgst -sha256 -binary -out digest document
while read -r mechanism id key input options; do
  read -ra options <<<"$options"
  check "sign with $mechanism" loggedIn --sign --mechanism "$mechanism" --id "$id" --signature-format openssl \
    --input-file "$input" --output-file signature
  check "openssl verifies" verifySignature "$key.pem" signature "${options[@]}"
done <<'END'
RSA-PKCS 01 rsa digest -sha256
SHA256-RSA-PKCS-PSS 01 rsa document -sha256 -sigopt rsa_padding_mode:pss
ECDSA-SHA256 03 ec521 document -sha256
END
quietly loggedIn --sign --mechanism SHA256-RSA-PKCS --id 01 --input-file document --output-file signature
shows "verify" 'Signature is valid' loggedIn --verify --mechanism SHA256-RSA-PKCS --id 01 --input-file document --signature-file signature
shows "a wrong signature" 'Invalid signature' loggedIn --verify --mechanism SHA256-RSA-PKCS --id 01 --input-file pin --signature-file signature

for padding in pkcs1:RSA-PKCS: oaep:RSA-PKCS-OAEP:--hash-algorithm=SHA-1; do
  IFS=: read -r mode mechanism option <<<"$padding"
  openssl pkeyutl -encrypt -pubin -inkey rsa.pem -pkeyopt "rsa_padding_mode:$mode" -in document -out ciphertext
  check "decrypt $mode" loggedIn --decrypt --mechanism "$mechanism" ${option:+"$option"} --id 01 --input-file ciphertext --output-file plaintext
  check "the plaintext" cmp document plaintext
done
openssl pkeyutl -encrypt -pubin -inkey rsa.pem -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256 -in document -out ciphertext
# The client tries once more after the failure; the module refuses the second C_DecryptInit.
refuses "OAEP with another hash than SHA-1" 'C_DecryptInit failed.*CKR_OPERATION_ACTIVE' \
  loggedIn --decrypt --mechanism RSA-PKCS-OAEP --hash-algorithm SHA256 --id 01 --input-file ciphertext --output-file plaintext

openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -outform DER -out peer.der
openssl pkey -inform DER -in peer.der -pubout -outform DER -out peer-public.der
openssl pkeyutl -derive -inkey peer.der -keyform DER -peerkey ec.pem -out expected
check "ECDH" loggedIn --derive --mechanism ECDH1-DERIVE --id 02 --input-file peer-public.der --output-file secret
check "the same secret as openssl" cmp expected secret

openssl req -x509 -newkey rsa:2048 -nodes -keyout own.key -subj /CN=Imported -days 30 -outform DER -out own.crt 2>/dev/null
openssl rsa -in own.key -outform DER -out own.der 2>/dev/null
openssl rsa -in own.key -pubout -outform DER -out own-public.der 2>/dev/null
openssl rsa -in own.key -pubout -out own.pem 2>/dev/null
check "write a certificate" loggedIn --write-object own.crt --type cert --label own --id 09
check "read it" loggedIn --read-object --type cert --id 09 --output-file read.crt
check "it is the same" cmp own.crt read.crt
check "delete it" loggedIn --delete-object --type cert --id 09
refuses "it is gone" 'object not found' loggedIn --read-object --type cert --id 09
check "import an RSA key" loggedIn --write-object own.der --type privkey --label own --id 09
refuses "its ID is the token's choice, not the given one" 'Private key not found' loggedIn --sign --mechanism SHA256-RSA-PKCS --id 09 --input-file document
id=$(loggedIn --list-objects --type privkey 2>/dev/null | grep -A1 'own$' | sed -n 's/.*ID: *//p')
check "give it an ID" loggedIn --set-id 0a --type privkey --id "$id"
shows "it keeps its label" 'label: *own$' loggedIn --list-objects --type privkey --id 0a
check "sign with it" loggedIn --sign --mechanism SHA256-RSA-PKCS --id 0a --input-file document --output-file signature
check "openssl verifies" verifySignature own.pem signature -sha256

for type in data pubkey secrkey:--key-type=AES:16; do
  refuses "import of ${type%%:*}" CKR_FUNCTION_NOT_SUPPORTED loggedIn --write-object own-public.der --type "${type%%:*}" --label x $(sed -n 's/[^:]*:\(.*\)/\1/p' <<<"$type")
done
refuses "secret keys" 'Generate Key mechanism not supported' loggedIn --keygen --key-type AES:16 --label x
refuses "RSA of 1536 bits" CKR_MECHANISM_INVALID loggedIn --keypairgen --key-type rsa:1536 --label x
refuses "another curve" CKR_MECHANISM_INVALID loggedIn --keypairgen --key-type EC:secp256k1 --label x
refuses "deleting a public key" CKR_OBJECT_HANDLE_INVALID loggedIn --delete-object --type pubkey --id 0a
check "deleting the private key" loggedIn --delete-object --type privkey --id 0a
refuses "the public key went with it" 'object not found' loggedIn --read-object --type pubkey --id 0a
refuses "a wrong PIN" CKR_PIN_INCORRECT env PIN=wrong pkcs11-tool --module "$module" --login --pin env:PIN --list-objects

# These complaints are deliberate departures: no empty requests, no comparison of buffer sizes, OAEP with SHA-1 only.
loggedIn --test 2>&1 | grep -E '^ *(ERR|error):' >complaints-unsorted || true
LC_ALL=C sort complaints-unsorted >complaints
check "--test has no other complaints" diff -w - complaints <<'END'
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
