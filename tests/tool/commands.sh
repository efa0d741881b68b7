#!/bin/bash
# tavrin-tool's commands and their exit codes, on tokens that the built module fills.
source "$(dirname "$0")/../e2e/common.sh"
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
# says FILE TEXT...: every text stands in the file, within one line
says() {
  for text in "${@:2}"; do grep -qF -- "$text" "$1" || fail "no \"$text\" in: $(cat "$1")"; done
}
# json FILTER VALUE: what the last report holds there, as one line
json() { [[ $(jq -c "[$1]" out) == "[$2]" ]] || fail "$1 is not $2 in: $(cat out)"; }

# Words that mean nothing, and the reason that is given.
while IFS='|' read -r words reason; do
  # shellcheck disable=SC2086  # several words
  tool 2 $words
  says err "$reason"
done <<'END'
nonsense|no command nonsense
status --jsno|no option --jsno
status name|takes no names
log level 4|from 0 to 3
log --day 1.2.2026|YYYY-MM-DD
log --grep|needs a value
token create|one token's name
token list --label x|no option --label
token create x --capacity many|takes a number
END

# Without a token, and without a module; created, unplugged, plugged.
tool 1 status
says out 'no token is connected' 'Cryptoki 2.20' "${library##*/}" "${deviceLibrary##*/}"
tool 1 status --json --module "$(native "$E2E_FOLDER/none")"
json '.exitCode, .module.path, (.problems | length)' '1,"",1'
createToken anna >/dev/null
tool 1 token create anna --pin-file "$pin" --so-pin-file "$soPin"
tool 0 token unplug anna
tool 1 token unplug anna
tool 0 token list
[[ $(awk '$1 == "anna" { print $4, $5 }' out) == "no 10" ]] || fail "anna is not unplugged: $(cat out)"
tool 1 status
tool 0 token plug anna
tool 0 status --module "$E2E_MODULE"
says out 'All is well.' 'tries left    10'

# A key whose certificates have a whole chain, end soon, have ended, and have no chain.
mkdir -p home/TavrinDSC/Certificates
for ca in Root Stranger; do
  openssl req -x509 -newkey rsa:2048 -nodes -days 365 -keyout $ca.key -subj "/C=IN/CN=$ca" -out $ca.pem 2>/dev/null
done
cp Root.pem home/TavrinDSC/Certificates
run sign_file "$E2E_MODULE" "file:$pin" key "$pin" made rsa >/dev/null
# certify NAME CA DAYS: for the token's key, written to the token
certify() {
  openssl req -new -newkey rsa:2048 -nodes -keyout any.key -subj "/C=IN/CN=$1" -out any.csr 2>/dev/null
  openssl x509 -req -in any.csr -force_pubkey made.pem -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days "$3" \
    -outform DER -out "$1.der" 2>/dev/null
  run $client "$(native "$E2E_FOLDER/$1.der")"
}
certify Good Root 200
tool 0 status
says out 'RSA 2048, "key"' 'Good, issued by Root' 'complete in the CA folder' 'All is well.'
certify Soon Root 20
certify Ended Root -1
certify Alone Stranger 200
ends=$(date -u -d "$(openssl x509 -inform DER -in Soon.der -noout -enddate | cut -d= -f2)" +%F)
tool 3 status
says out '"Soon" on token "anna" expires in ' " days, on $ends" '"Ended" on token "anna" expired on' 'INCOMPLETE, no "Stranger"'
tool 3 status --json
json '.tokens[0].keys[].certificates | sort_by(.subject)[] | .validity, .chain' \
  '"good","incomplete","expired","complete","good","complete","expires soon","complete"'
json '.tokens[0].otherCertificates[] | .subject, .chain' '"CN=Root,C=IN","self-signed"'
json '.tokens[0].triesLeftExactly, (.warnings | length)' '10,3'

# Looking costs no try, however few there are; the security officer gives them back.
for left in {9..0}; do
  ! run sign_file "$E2E_MODULE" "file:$wrong" key "$pin" no &>/dev/null || fail "a wrong password was right"
  word=enough && ((left > 2)) || word=few && ((left > 0)) || word=none
  [[ $left -gt 3 ]] || { tool 3 status --json && json '.tokens[0] | .triesLeftExactly, .triesLeft' "$left,\"$word\""; }
done
tool 1 token unlock anna --so-pin-file "$wrong" --new-pin-file "$pin"
says err 'the security officer password is wrong; tries left: 9'
tool 0 token unlock anna --so-pin-file "$soPin" --new-pin-file "$pin"
tool 3 status --json
json '.tokens[0].triesLeftExactly' 10

# The log: its level, its filters, and what comes while it is followed.
tool 0 log level 2 --json
json '.level, .meaning' '2,"errors"'
tool 0 token unplug anna
${E2E_RUNNER:+"$E2E_RUNNER"} "$E2E_BIN/tavrin-tool$exe" log --follow --program $client </dev/null >followed 2>/dev/null &
trap 'kill %1 2>/dev/null || true' EXIT
sleep 2
before=$(wc -l <followed)
! run $client none &>/dev/null || fail "there should be no token"
for ((i = 0; i < 100 && $(wc -l <followed) <= before; ++i)); do sleep 0.1; done
[[ $(tail -n 1 followed | tr -d '\r') == *"ERROR ::=>No valid token found" ]] || fail "not followed: $(cat followed)"
tool 0 log --errors --program $client.exe --grep 'valid token'
[[ -s out && $(grep -vc 'ERROR ::=>No valid token' out) == 0 ]] || fail "not filtered: $(cat out)"
tool 0 log show --day 2001-01-01
[[ ! -s out && $(cat err) == *"no log of 2001-01-01"* ]] || fail "a log before its time: $(cat out err)"
if [[ $E2E_SYSTEM == Windows ]]; then
  value=$("$E2E_RUNNER" reg query 'HKLM\Software\Quorvane Telemantix\Tavrin' /v logLevel </dev/null)
  [[ $value == *REG_DWORD*0x2* ]] || fail "not in the registry: $value"
else
  [[ $(cat registry/Software/*/Tavrin/logLevel) == 2 ]] || fail "not in the registry"
  onTerminal() { env -u NO_COLOR TERM=xterm "$@" script -qec "'$E2E_BIN/tavrin-tool' log --errors" log </dev/null; }
  [[ $(onTerminal | head -n 1) == $'\e[31m'*$'\e[0m'* && $(onTerminal NO_COLOR=1) != *$'\e'* ]] || fail "wrong colours"
fi
echo "tavrin-tool did what it was told"
