#!/bin/bash
# tavrin-tool's commands and their exit codes, on tokens that the built module fills.
source "$(dirname "$0")/lib.sh"

# Words that mean nothing, and the reason that is given.
while IFS='|' read -r words reason; do
  # shellcheck disable=SC2086  # several words
  tool 2 $words
  says err "$reason"
done <<'END'
nonsense|there is no command nonsense; see
token crate x|token has no command crate; did you mean create?
token|say what to do with token
status --jsno|status has no option --jsno; did you mean --json?
status name|status takes no word name
log level 4|not in range 0 to 3
log --day 1.2.2026|YYYY-MM-DD
log --grep|--grep
token create|NAME is required
token list --label x|token list has no option --label
token create x --capacity many|--capacity = many
token create x --pin=1234|no option --pin; did you mean --pin-file?
END
! grep -q 1234 err || fail "a password is repeated: $(cat err)"
tool 0 token create --help
says out '--pin-file FILE' 'TAVRIN_SO_PIN'

# --help, the manual page and the completion have the same commands and options.
run tavrin-tool manual | tr -d '\\' >manual
run tavrin-tool completion >completion
sed -n "s/^ *'\([a-z ]\+\)') words=.*/\1/p" completion >commands
[[ $(wc -l <commands) == "$(grep -c '^\.SS' manual)" ]] || fail "the manual has other commands: $(cat manual)"
while read -r words; do
  tool 0 $words --help
  sed -nE 's/^ +(-[a-z],)?(--[a-z-]+).*/\2/p' out | sort >shown
  awk -v heading=".SS $words" '/^\.S[SH]/ {on = $0 == heading} on && /^\.B / {print} END {print "--help"}' manual |
    grep -oE -- '--[a-z-]+' | sort | diff shown - || fail "the manual has other options of $words"
  sed -n "s/^ *'$words') words=//p" completion | grep -oE -- '--[a-z-]+' | sort | diff shown - || fail "completion of $words"
done <commands
grep -oE -- '--[a-z-]+ FILE' manual | cut -d ' ' -f 1 | sort -u >shown
sed -n 's/) mapfile -t COMPREPLY < <(compgen -f .*//p' completion | grep -oE -- '--[a-z-]+' | diff shown - || fail "options with files"

# Refused before the passwords are read, which would fail here without a terminal.
while IFS='|' read -r words reason; do
  tool 1 token create $words
  says err "$reason"
done <<END
con|Windows reserves
Com7.old|Windows reserves
x --label a$(printf '\x1b')b|control character
x --label a$(printf '\xc2\x9b')b|control characters
x --capacity 0|capacity
END

# Without a token, and without a module; created, unplugged, plugged.
tool 1 status
says out 'no token is connected' 'Cryptoki 2.20' "${library##*/}" "${deviceLibrary##*/}"
tool 1 status --json --module "$(native "$E2E_FOLDER/none")"
json '.exitCode, .module.path, (.problems | length)' '1,"",1'
createToken anna >/dev/null
tool 1 token create anna
says err 'there is a token named anna already'
tool 0 token create anna --if-absent
tool 0 token create other --label anna --pin-file "$pin" --so-pin-file "$soPin"
says err 'token anna has the same label'
rm tokens/other/tries
tool 0 token list
says out 'other' 'unreadable: '
tool 0 token list --json
json '.[] | .name, (.problem | length > 0)' '"anna",false,"other",true'
rm -r tokens/other

# Password files as editors and shells write them; the password is the same in all of them.
tool 0 token create files --pin-file "$pin" --so-pin-file "$soPin" --label "$(printf %033d 0)" --firmware 1.9 --capacity 7
says err 'only the first 32 bytes'
tool 0 token unplug files
word=$(cat so-pin)
printf '%s\r\nsecond line' "$word" >file1
printf '\xef\xbb\xbf%s' "$word" >file2
{ printf '\xff\xfe' && printf '%s\r\n' "$word" | iconv -t UTF-16LE; } >file3
{ printf '\xfe\xff' && printf '%s\n' "$word" | iconv -t UTF-16BE; } >file4
for i in 1 2 3 4; do tool 0 token unlock files --so-pin-file "$(native "$E2E_FOLDER/file$i")" --new-pin-file "$pin"; done
printf 'Gr\xc3\xbc\xc3\x9f \xf0\x9f\x94\x91' | tee utf8 | { printf '\xff\xfe' && iconv -f UTF-8 -t UTF-16LE; } >utf16
tool 0 token reset files --yes --pin-file "$(native "$E2E_FOLDER/utf8")" --so-pin-file "$(native "$E2E_FOLDER/utf16")"
tool 0 token unlock files --so-pin-file "$(native "$E2E_FOLDER/utf8")" --new-pin-file "$pin"
tool 0 token list --json
json '.[] | select(.name == "files") | .label, .firmware, .capacity, .plugged' "\"$(printf %033d 0)\",\"1.9\",7,false"
endless=/dev/zero
[[ $E2E_SYSTEM == Linux ]] || { head -c 100000000 /dev/zero >zeros && endless=$(native "$E2E_FOLDER/zeros"); }
tool 1 token unlock files --so-pin-file "$endless" --new-pin-file "$pin"
says err 'is too long'
tool 0 token remove files --yes
tool 0 token create 31 --pin-file "$pin" --so-pin-file "$soPin" --label "$(printf %031d 0)"
says err 'only the first 30 bytes'
tool 0 token remove 31 --yes
tool 0 token unplug anna
tool 1 token unplug anna
tool 0 token list
[[ $(awk '$1 == "anna" { print $4, $5 }' out) == "no 10" ]] || fail "anna is not unplugged: $(cat out)"
tool 1 status
tool 0 token plug anna
tool 0 status --module "$E2E_MODULE"
says out 'All is well.' 'tries left    10'

# A certificate is imported with its chain, root first; issuers carry their names as labels, and what is there already is
# not written again. The folder of the certificate authorities has other files too.
cas=home/TavrinDSC/Certificates
mkdir -p $cas
authority Root && cp Root.pem $cas/root.PEM
authority Middle -CA Root.pem -CAkey Root.key && openssl x509 -in Middle.pem -outform DER -out $cas/middle.Cer
echo "no certificate" >$cas/broken.crt
makeKey
certify Good Middle 200
run $client "$(native "$E2E_FOLDER/Good.der")" "$keyId" "my certificate"
tool 0 token show anna
sed -n 's/  */ /g; /^certificate/p' out | diff - <(
  printf 'certificate %s\n' '1 CN=Root,C=IN Root' '2 CN=Middle,C=IN Middle' "3 CN=Good,C=IN my certificate $keyId"
) || fail "another chain: $(cat out)"

# A key whose certificates have a whole chain, end soon, have ended, and have no chain.
authority Stranger
tool 0 status
says out 'RSA 2048, "key"' 'Good, issued by Middle' 'complete in the CA folder' 'All is well.'
certify Soon Root 20
certify Ended Root -1
certify Alone Stranger 200
ends=$(date -u -d "$(openssl x509 -inform DER -in Soon.der -noout -enddate | cut -d= -f2)" +%F)
tool 3 status
says out '"Soon" on token "anna" expires in ' " days, on $ends" '"Ended" on token "anna" expired on' 'INCOMPLETE, no "Stranger"'
tool 3 status --json
json '.tokens[0].keys[].certificates | sort_by(.subject)[] | .validity, .chain' \
  '"valid","incomplete","expired","complete","valid","complete","expires soon","complete"'
json '.tokens[0].otherCertificates[] | .subject, .chain' '"CN=Root,C=IN","self-signed","CN=Middle,C=IN","complete"'
json '.tokens[0].triesLeftExactly, (.warnings | length)' '10,3'

# Not valid yet; a CA file that the module passes over because it fits on no token; a label that acts on terminals.
printf 'cn = "Future"\nactivation_date = "2098-03-04 00:00:00 UTC"\nexpiration_date = "2099-01-01 00:00:00 UTC"\n' >template
certtool --generate-self-signed --load-privkey Root.key --template template --outder --outfile Future.der 2>/dev/null
run $client "$(native "$E2E_FOLDER/Future.der")" '' "$(printf 'x\x1b[31m\x7f\xc2\x9b1my')"
authority Large -addext "subjectAltName=$(printf 'DNS:name-%03d.example.org,' {1..150})DNS:last.example.org"
cp Large.pem $cas
certify Below Large 200
tool 3 status
says out '"Future" on token "anna" is valid only from 2098-03-04' 'INCOMPLETE, no "Large"' 'certificates  2'
for words in status 'status --json' 'token show anna' 'token show anna --json'; do
  launch tavrin-tool $words >out || true
  ! LC_ALL=C grep -qP '[\x00-\x08\x0b\x0c\x0e-\x1f\x7f]|\xc2[\x80-\x9f]' out || fail "control characters: $(cat -v out)"
done

# Looking costs no try, however few there are; the security officer gives them back.
for left in {9..0}; do
  ! run sign_file "$E2E_MODULE" "file:$wrong" key "$pin" no &>/dev/null || fail "a wrong password was right"
  word=enough && ((left > 2)) || word=few && ((left > 0)) || word=none
  [[ $left != 2 ]] || { tool 3 status && says out 'tries left    2, few'; }
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
before=$(run tavrin-tool log --program $client | wc -l)
awaited '(($(wc -l <followed) >= before))'
for _ in 1 2; do
  before=$(wc -l <followed)
  ! run $client none &>/dev/null || fail "there should be no token"
  awaited '(($(wc -l <followed) > before))'
done
cp followed seen
diff <(run tavrin-tool log --program $client | head -n "$(wc -l <seen)") <(tr -d '\r' <seen) || fail "other lines than the log's"
# A shorter file that takes the log's place is read from its beginning.
launch tavrin-tool status --json >out || true
logFile=$(jq -r ".log.today[] | select(.program == \"$client\") | .path" out)
[[ $E2E_SYSTEM == Linux ]] || logFile=$("$E2E_RUNNER" winepath -u "$logFile" </dev/null | tr -d '\r')
cp "$logFile" kept.LOG
echo '01/01::00:00:00:000-> ->ERROR ::=>anew' >"$logFile"
awaited '[[ $(tail -n 1 followed) == *anew* ]]'
cp kept.LOG "$logFile"
tool 0 log --errors --program $client.exe --grep 'valid token'
[[ -s out && $(grep -vc 'ERROR ::=>No valid token found' out) == 0 ]] || fail "not filtered: $(cat out)"
tool 0 log show --day 2001-01-01
[[ ! -s out && $(cat err) == *"no log of 2001-01-01"* ]] || fail "a log before its time: $(cat out err)"
if [[ $E2E_SYSTEM == Windows ]]; then
  value=$("$E2E_RUNNER" reg query 'HKLM\Software\Quorvane Telemantix\Tavrin' /v logLevel </dev/null)
  [[ $value == *REG_DWORD*0x2* ]] || fail "not in the registry: $value"
  # Characters of several bytes reach a console whole.
  tool 0 token create --label 'Grüße 中文' wide --pin-file "$pin" --so-pin-file "$soPin"
  console() { LC_ALL=C.UTF-8 timeout 60 script -qec "'$E2E_RUNNER' $1" shown </dev/null >/dev/null; }
  console "'$E2E_BIN/tavrin-tool.exe' token list"
  says shown 'NAME  ' 'Grüße 中文'
  console "'$E2E_BIN/wait_for_token.exe' '$E2E_MODULE' 0"
  says shown '"Grüße 中文"'
  tool 0 token remove wide --yes
else
  [[ $(cat registry/Software/*/Tavrin/logLevel) == 2 ]] || fail "not in the registry"
  onTerminal() { env -u NO_COLOR TERM=xterm "$@" script -qec "'$E2E_BIN/tavrin-tool' log --errors" log </dev/null; }
  (umask 077 && TAVRIN_REGISTRY=$E2E_FOLDER/closed launch tavrin-tool log level 3 >/dev/null)
  [[ $(find closed ! -perm -o+r) == '' ]] || fail "others cannot read the level: $(ls -lR closed)"
  # A token that another process makes while passwords are asked for stays.
  meanwhile() { launch tavrin-tool token create "$1" --pin-file pin --so-pin-file so-pin >"$1" && cat pin; }
  tool 1 token create first --so-pin-file so-pin --pin-file <(meanwhile first)
  tool 0 token create second --so-pin-file so-pin --pin-file <(meanwhile second) --if-absent
  for name in first second; do
    says "$name" "$(run tavrin-tool token list --json | jq -r ".[] | select(.name == \"$name\") | .serial")"
    tool 0 token remove "$name" --yes
  done
  # A signal at a password prompt leaves the terminal as it was.
  script -qec "'$E2E_BIN/tavrin-tool' token create sig & sleep 1; kill -TERM \$!; wait \$!; echo code \$?; stty -a" \
    terminal < <(sleep 3) >/dev/null || fail "no terminal"
  says terminal 'new user password' 'code 143' ' echo '
  # After a mistyped repetition the tool asks again.
  : >typed
  timeout 60 script -qfec "'$E2E_BIN/tavrin-tool' token create typed --so-pin-file so-pin" typed < <(
    for row in 1:first 2:mistyped 3:"$(cat pin)" 4:"$(cat pin)"; do
      awaited '(($(grep -oE "(new|repeat the) user password" typed | wc -l) >= ${row%%:*}))'
      sleep 0.1 && echo "${row#*:}"
    done
    awaited 'grep -q created typed'
  ) >/dev/null || fail "not created: $(cat typed)"
  says typed 'The two entries differ.' 'created typed'
  run sign_file "$E2E_MODULE" "file:$pin" key "$pin" typed.1 ec >/dev/null || fail "the repeated password is not the token's"
  launch tavrin-tool status >out || true
  says out 'P-256, "key"'
  [[ $(onTerminal | head -n 1) == $'\e[31m'*$'\e[0m'* && $(onTerminal NO_COLOR=1) != *$'\e'* ]] || fail "wrong colours"
fi
