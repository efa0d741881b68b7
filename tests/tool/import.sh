#!/bin/bash
# tavrin-tool import: keys and certificates in the files that people have, and a signature by each key.
source "$(dirname "$0")/lib.sh"
openssl rand -hex 8 | sed 's/$/ Grüße 🔑/' >filePin
filePin=$(native "$E2E_FOLDER/filePin")
authority Root
mkdir empty
export TAVRIN_HOME=$(native "$E2E_FOLDER/empty")
echo document >document

# person NAME KEYGEN...: a key and a certificate by Root
person() {
  openssl genpkey "${@:2}" -out "$1.pem" 2>/dev/null
  openssl req -new -key "$1.pem" -subj "/CN=$1" -out "$1.csr" 2>/dev/null
  openssl x509 -req -in "$1.csr" -CA Root.pem -CAkey Root.key -CAcreateserial -days 100 -out "$1.crt" 2>/dev/null
}
# imports NAME FILE TEXT ARGUMENT...: into a new token; its key signs, and has its certificate with the issuer
imports() {
  createToken "$1" >/dev/null
  tool 0 import "$(native "$E2E_FOLDER/$2")" --pin-file "$pin" "${@:4}"
  says out "$3"
  run sign_file "$E2E_MODULE" "file:$pin" "${label:-Person}" "$(native "$E2E_FOLDER/document")" out.1 >/dev/null
  openssl x509 -in Person.crt -noout -pubkey >wanted.pem
  openssl dgst -sha256 -verify wanted.pem -signature out.1.sig document >/dev/null || fail "$2: another key"
  tool 0 status --json
  json '.warnings, .tokens[0].keys[0].certificates[0].chain, (.tokens[0].otherCertificates | length)' '[],"on token",1'
  tool 0 import "$(native "$E2E_FOLDER/$2")" --pin-file "$pin" "${@:4}"
  says out 'the key is on the token already'
  tool 0 token show "$1" --json
  json '(.keyPairs | length), [.certificates[].label] - ["'"${label:-Person}"'"]' '1,["Root"]'
  tool 0 token remove "$1" --yes
}

person Person -algorithm RSA -pkeyopt rsa_keygen_bits:2048
export=(openssl pkcs12 -export -inkey Person.pem -in Person.crt -certfile Root.pem -passout file:filePin)
"${export[@]}" -macalg sha512 -out modern.p12
imports modern modern.p12 'wrote the key "Person"' --file-pin-file "$filePin"
"${export[@]}" -legacy -certpbe PBE-SHA1-RC2-40 -keypbe PBE-SHA1-3DES -macalg sha1 -out legacy.p12
imports legacy legacy.p12 'wrote the key "Person"' --file-pin-file "$filePin"
cat Person.crt Root.pem Person.pem >plain.pem
label=mine imports plain plain.pem 'wrote the key "mine", id 0123' --label mine --id 0123
{ openssl rsa -in Person.pem -traditional 2>/dev/null && cat Person.crt Root.pem; } >traditional.pem
imports traditional traditional.pem 'wrote the key "Person"'
{ openssl pkcs8 -topk8 -in Person.pem -passout file:filePin && cat Person.crt Root.pem; } >encrypted.pem
imports encrypted encrypted.pem 'wrote the key "Person"' --file-pin-file "$filePin" --module "$(native "$standardLibrary")"

# What cannot be imported, and why; nothing is written.
createToken refused >/dev/null
person Curve -algorithm EC -pkeyopt ec_paramgen_curve:P-256
cat Curve.crt Curve.pem >curve.pem
person Exponent -algorithm RSA -pkeyopt rsa_keygen_pubexp:3
openssl rsa -in Person.pem -aes128 -traditional -passout file:filePin -out old.pem 2>/dev/null
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1536 -out short.pem 2>/dev/null
head -c 900 modern.p12 >cut.p12
while IFS='|' read -r file words reason; do
  # shellcheck disable=SC2086  # several words
  tool 1 import "$(native "$E2E_FOLDER/$file")" --pin-file "$pin" $words
  says err "$reason"
done <<END
curve.pem||takes no elliptic-curve keys
Exponent.pem||public exponent 65537 only
modern.p12|--file-pin-file $wrong|the file's password is wrong
encrypted.pem|--file-pin-file $wrong|the file's password is wrong
old.pem||openssl pkcs8 -topk8
cut.p12|--file-pin-file $filePin|damaged
document||neither a PEM nor a PKCS#12 file
Person.csr||neither a key nor a certificate
none.pem||cannot read
plain.pem|--token other|no token with the label other
short.pem||RSA keys of 1024, 2048
END
mkdir tokens/refused/token.new
tool 1 import "$(native "$E2E_FOLDER/plain.pem")" --pin-file "$pin"
says err 'writing the key failed with 0x00000006'
rmdir tokens/refused/token.new
tool 1 import "$(native "$E2E_FOLDER/plain.pem")" --pin-file "$wrong"
says err 'the user password is wrong'
tool 0 token show refused --json
json '(.keyPairs | length), (.certificates | length)' '0,0'

# Of two tokens with one label, the one whose serial number is given.
run tavrin-tool token create twin --label refused --pin-file "$pin" --so-pin-file "$(native "$E2E_FOLDER/so-pin")"
tool 1 import "$(native "$E2E_FOLDER/plain.pem")" --pin-file "$pin" --token refused
says err 'choose one by its serial number'
serial=$(run tavrin-tool token show twin --json | jq -r .serial)
tool 0 import "$(native "$E2E_FOLDER/plain.pem")" --pin-file "$pin" --token "$serial"
tool 0 token show twin --json
json '.keyPairs | length' 1
