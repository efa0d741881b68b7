#!/bin/bash
# What tavrin-tool's status, log and report say when something is wrong.
source "$(dirname "$0")/lib.sh"
mkdir -p home/TavrinDSC/Certificates
tool 0 log level 3
createToken anna >/dev/null
makeKey

# Status finds what disturbs, and leaves nothing in the log.
authority Root
certify Other Root 200 0123
openssl x509 -in Root.pem -outform DER -out Root.der
run $client "$(native "$E2E_FOLDER/Root.der")" 77
tool 3 status
says out 'software token anna' 'complete with issuers on the token' 'has ID' '--set-id 0123'
tool 3 status --json
json '.tokens[0].keys[0].certificates[0] | .id, .chain' '"0123","on token"'
json '.tokens[0].softwareToken' true
# Under Wine all tests share one log folder.
[[ $E2E_SYSTEM == Windows ]] || json '[.log.today[].program] | contains(["tavrin-tool"])' false
env -u TAVRIN_HOME "${BASH:-bash}" -c '"$@"' - ${E2E_RUNNER:+"$E2E_RUNNER"} "$E2E_BIN/tavrin-tool$exe" status --json </dev/null |
  tr -d '\r' >out || true
json '.caFolder.shared, ([.warnings[] | select(contains("TAVRIN_HOME"))] | length)' 'false,1'
certify Right Root 200
tool 0 status
createToken full >/dev/null
createToken damaged >/dev/null
echo x >tokens/damaged/token
tool 0 token unplug full
tool 0 token unplug anna
tool 1 status
says out 'unreadable    damaged' 'Soft tokens' 'the software token damaged in'
tool 1 status --json
json '.problems[0] | contains("anna is unplugged: tavrin-tool token plug anna")' true
rm -r tokens/damaged
tool 0 token remove full --yes
tool 0 token plug anna
tool 1 status --module "$(native "$E2E_FOLDER/none.dll")"
[[ $E2E_SYSTEM == Linux ]] || {
  says out 'there is no such file'
  tool 1 status --module "$(native "$E2E_FOLDER/made.pem")"
  says out 'the file is no DLL'
}
if [[ $E2E_SYSTEM == Linux ]]; then
  # The log cannot be written: standard output stays JSON although the module complains there.
  mv "tmp/Quorvane Telemantix" kept && touch "tmp/Quorvane Telemantix"
  tool 3 status --json
  json '[.warnings[] | select(contains("the log cannot be written"))] | length' 1
  rm "tmp/Quorvane Telemantix" && mv kept "tmp/Quorvane Telemantix"
  # Another device library in the search path, and an NSS database with a missing file.
  mkdir -p path user/.pki/nssdb && touch path/libTavrinDSCLibrary.so
  echo 'library=/nowhere/module.so' >user/.pki/nssdb/pkcs11.txt
  LD_LIBRARY_PATH=$E2E_FOLDER/path HOME=$E2E_FOLDER/user launch tavrin-tool status >out || true
  says out 'another device library is in the search path' 'names a missing file, /nowhere/module.so'
fi

# The log of a wrong PIN, as support reads it.
! run sign_file "$E2E_MODULE" "file:$wrong" key "$pin" no &>/dev/null || fail "a wrong password was right"
tool 0 log -p sign_file --errors --explain --names
says out 'validation failed : 20 (wrong password)' 'The application gave a wrong password' 'Enter the right password'
tool 0 log -p sign_file.exe --calls --errors -n 1
[[ $(wc -l <out) == 1 ]] || fail "not the last line: $(cat out)"
tool 0 log --calls -p sign_file
grep -qE 'C_GenerateKeyPair  [0-9]+ ms$' out || fail "no time of a call: $(cat out)"
tool 0 log -p sign_file -i -g 'LOGIN END'
says out 'Login end result : 0'
tool 0 log -p
says out sign_file $client
tool 0 log -p nobody
says err 'there are logs by' sign_file
cat >sent.LOG <<'END'
21/11::09:59:59:000-> ->DEBUG ::=>C_Initialize
21/11::10:00:00:000-> ->DEBUG ::=>C_SignInit
21/11::10:00:00:250-> ->ERROR ::=>C_SignInit: unsupported mechanism=4176
21/11::10:00:01:000-> ->DEBUG ::=>C_CreateObject
21/11::10:00:01:000-> ->DEBUG ::=>Issuer 'Secret <b>Name</b>' NOT found — skipping chain import
21/11::10:00:01:500-> ->DEBUG ::=>Sign input hash : 00112233445566778899AABBCCDDEEFF
END
sent=$(native "$E2E_FOLDER/sent.LOG")
tool 0 log "$sent" --since 10:00 --names
[[ $(wc -l <out) == 5 ]] || fail "--since is not kept: $(cat out)"
says out 'mechanism=4176 (CKM_ECDH1_DERIVE)'
tool 2 log "$sent" --since 10
tool 1 log "$(native "$E2E_FOLDER/nothing.LOG")"

# The report: refusals explained, gaps to scale, nothing that acts as markup; and without names.
tool 0 report page.html --log "$sent"
says out '6 log lines, 1 refusals'
says page.html 'C_SignInit</b> <i>250 ms' 'class=g style=height:20px>750 ms' 'offer this mechanism' \
  'Secret &lt;b&gt;Name' 'CKM_ECDH1_DERIVE' "$(basename "$E2E_FOLDER")" 'AABBCCDDEEFF'
[[ $(grep -cE '(src|href)=["h]*http|url\(' page.html) == 0 ]] || fail "the page refers to others"
tool 0 report private.html --private --log "$sent"
serial=$(run tavrin-tool token list --json | jq -r '.[0].serial')
silent private.html Secret AABBCCDDEEFF anna "$serial" "$keyId" Right '"key"' "$E2E_FOLDER" "$(cat pin)"
says private.html 'offer this mechanism' 'label 1' '(hidden)'
awk 'BEGIN {
  hash = "DEBUG ::=>Sign input hash : 00112233445566778899AABBCCDDEEFF00112233445566778899AABBCCDDEEFF"
  for (i = 0; i < 100000; ++i) {
    text = hash
    if (i % 10 == 0) text = "ERROR ::=>C_SignInit: unsupported mechanism=" i
    if (i % 10 == 5) text = "DEBUG ::=>C_SignInit"
    printf "21/11::%02d:%02d:%02d:%03d-> ->%s\n", i / 7200, i / 120 % 60, i / 2 % 60, i % 1000, text
  }
}' >many.LOG
start=$(date +%s%N)
tool 0 report many.html --log "$(native "$E2E_FOLDER/many.LOG")"
took=$((($(date +%s%N) - start) / 1000000))
((took < 8000)) || fail "100000 lines took $took ms" # 2 s on a machine that is idle
(($(stat -c %s many.html) < 20000000)) || fail "the page of 100000 lines is too large"
says many.html '10000 times, first at 00:00:00.000'
echo "status, log and report said what was wrong; 100000 lines took $took ms"
