# Sourced by the tests of tavrin-tool: running it, and looking at what it prints.
source "$(dirname "${BASH_SOURCE[0]}")/../e2e/common.sh"
export TAVRIN_REGISTRY=$E2E_FOLDER/registry
client=import_certificate # whose log is this test's alone
pin=$(native "$E2E_PIN_FILE") soPin=$(native "$E2E_FOLDER/so-pin") wrong=$(native "$E2E_FOLDER/wrong")
openssl rand -hex 8 >wrong

# tool CODE ARGUMENT...: output in `out`, messages in `err`
tool() {
  local code=0
  launch tavrin-tool "${@:2}" >raw 2>rawErrors || code=$?
  tr -d '\r' <raw >out
  tr -d '\r' <rawErrors >err
  [[ $code == "$1" ]] || fail "tavrin-tool ${*:2}: exit code $code, not $1: $(cat out err)"
}
# says FILE TEXT...: every text is in the file, within one line. silent FILE TEXT...: none is.
says() {
  # Long paths move the places where the tool breaks its lines.
  local folded
  folded=$(tr -s '[:space:]' ' ' <"$1")
  for text in "${@:2}"; do
    grep -qF -- "$text" "$1" || [[ $folded == *"$text"* ]] || fail "no \"$text\" in: $(cat "$1")"
  done
}
silent() {
  for text in "${@:2}"; do ! grep -qF -- "$text" "$1" || fail "\"$text\" is in: $(grep -F -- "$text" "$1")"; done
}
# json FILTER VALUE: what the last output holds there, as one line
json() { [[ $(jq -c "[$1]" out) == "[$2]" ]] || fail "$1 is not $2 in: $(cat out)"; }

# certify NAME CA DAYS [ID]: a certificate for the token's key, written to the token
certify() {
  openssl req -new -newkey rsa:2048 -nodes -keyout any.key -subj "/C=IN/CN=$1" -out any.csr 2>/dev/null
  openssl x509 -req -in any.csr -force_pubkey made.pem -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days "$3" \
    -outform DER -out "$1.der" 2>/dev/null
  run $client "$(native "$E2E_FOLDER/$1.der")" "${4-$keyId}"
}
# authority NAME ARGUMENT...: the self-signed certificate of a CA
authority() {
  openssl req -x509 -newkey rsa:2048 -nodes -days 365 -keyout "$1.key" -subj "/C=IN/CN=$1" -out "$1.pem" "${@:2}" 2>/dev/null
}
# makeKey: an RSA key "key" on the token, its public key in made.pem and its ID in keyId
makeKey() {
  run sign_file "$E2E_MODULE" "file:$pin" key "$pin" made rsa >/dev/null
  keyId=$(run tavrin-tool status --json | jq -r '.tokens[0].keys[0].id')
}
