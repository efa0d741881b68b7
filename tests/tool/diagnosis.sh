#!/bin/bash
# What tavrin-tool's status, log and report say when something is wrong.
source "$(dirname "$0")/lib.sh"
export LC_ALL=C.UTF-8
TAVRIN_HOME=$(native "$E2E_FOLDER/höme") # Windows' 8-bit encoding is not UTF-8
mkdir -p höme/TavrinDSC/Certificates
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
says out höme
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
# Other programs' settings, and another device library in the search path.
mkdir -p path app/Mozilla/Firefox/Profiles/x user/.mozilla/firefox/x user/.config/pkcs11/modules java/conf/security
touch "path/$(basename "$deviceLibrary")"
printf '%s\n' "library=$(native /nowhere/module)" "library=$library" 'library=p11-kit-proxy.so' |
  tee app/Mozilla/Firefox/Profiles/x/pkcs11.txt >user/.mozilla/firefox/x/pkcs11.txt
echo "module: $library" >user/.config/pkcs11/modules/tavrin.module
echo "security.provider.13=SunPKCS11 $(native "$E2E_FOLDER/java.cfg")" >java/conf/security/java.security
echo "library = $(native /nowhere/java)" >java.cfg
if [[ $E2E_SYSTEM == Windows ]]; then
  printf '@%s\r\n' "set PATH=Z:$E2E_FOLDER/path;%PATH%" "set APPDATA=Z:$E2E_FOLDER/app" "set JAVA_HOME=Z:$E2E_FOLDER/java" \
    "\"Z:$E2E_BIN/tavrin-tool.exe\" status" >disturbed.bat
  "$E2E_RUNNER" cmd /c disturbed.bat </dev/null >out || true
else
  LD_LIBRARY_PATH=$E2E_FOLDER/path:$E2E_FOLDER:$E2E_BIN HOME=$E2E_FOLDER/user JAVA_HOME=$E2E_FOLDER/java launch tavrin-tool status >out || true
  says out 'loads the module twice, directly and through p11-kit'
  (cd user && HOME='' launch tavrin-tool status) >homeless || true
  [[ -s homeless ]] && ! grep -q Firefox homeless || fail "settings of the working folder: $(cat homeless)"
fi
says out 'another device library is in the search path' "Firefox's setting in" "names a missing file, $(native /nowhere/module)" \
  "Java's setting in" "names a missing file, $(native /nowhere/java)"
[[ $(tr -s '[:space:]' ' ' <out | grep -o 'another device library' | wc -l) == 1 ]] || fail "one library is another: $(cat out)"

if [[ $E2E_SYSTEM == Windows ]]; then
  # Files that are no DLL for this processor, and a module without its device library.
  header() { printf 'MZ%58s\x40\0\0\0PE\0\0%b%200s' '' "$1" '' | tr ' ' '\0'; }
  header '\x4c\x01' >small.dll && header '\x64\xaa' >arm.dll && mkdir alone
  cp "$library" "$E2E_BIN/tavrin-tool.exe" alone
  for row in "none:there is no such file" "made.pem:the file is no DLL" "small.dll:the file is a 32-bit DLL" \
    "arm.dll:another kind of processor"; do
    tool 1 status --module "$(native "$E2E_FOLDER/${row%%:*}")"
    says out "${row#*:}"
  done
  "$E2E_RUNNER" alone/tavrin-tool.exe status </dev/null >out || true
  says out 'a DLL that it needs is missing, probably TavrinDSCLibrary.dll (Windows error 126)'
else
  # The log cannot be written: standard output stays JSON although the module complains there.
  log="tmp/Quorvane Telemantix"
  mv "$log" kept && touch "$log"
  tool 3 status --json
  json '[.warnings[] | select(contains("the log cannot be written"))] | length' 1
  rm "$log" && ln -s "$E2E_FOLDER/kept" "$log"
  tool 3 status --json
  json '[.warnings[] | select(contains("the log cannot be written"))] | length' 1
  rm "$log" && mv kept "$log"
  mkdir "$log/tavrin-tool" && echo kept | tee target >"$log/tavrin-tool/$(date +%F).LOG"
  ln -s "$E2E_FOLDER/target" "$log/.tavrin-tool"
  tool 3 status
  cmp target "$log"/tavrin-tool/*.LOG
  says target kept
  rm -r "$log/.tavrin-tool" "$log/tavrin-tool"
  [[ $EUID != 0 ]] || {
    chown nobody "$log"
    tool 3 status
    says out 'the log is in /tmp/tavrin-0/' 'belongs to nobody'
    chown root "$log"
  }
  # A token's folder that cannot be read; root must not be allowed to read everything.
  limited() { if [[ $EUID == 0 ]]; then setpriv --bounding-set=-dac_override,-dac_read_search "$@"; else "$@"; fi; }
  chmod 0 tokens/anna
  limited "$E2E_BIN/tavrin-tool" status >out || true
  says out 'unreadable' 'anna'
  chmod 700 tokens/anna
  # What is shown follows the token.
  : >watched
  timeout 60 script -qfec "echo \$\$ >watcher; exec '$E2E_BIN/tavrin-tool' status --watch" watched < <(
    shows() { awaited "((\$(grep -c '$1' watched) >= $2))"; }
    shows 'tries left' 1
    run tavrin-tool token unplug anna >&2
    shows 'no token is connected' 1
    run tavrin-tool token plug anna >&2
    shows 'tries left' 2
    kill "$(cat watcher)"
  ) >/dev/null || true
  [[ $(grep -oE 'tries left|no token is connected' watched | tr '\n' ,) == 'tries left,no token is connected,tries left,' ]] ||
    fail "not watched: $(cat -v watched)"
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
21/11::10:00:02:000-> ->EXCEP ::=>C_Sign: token 0123456789ABCDEF failed
END
sent=$(native "$E2E_FOLDER/sent.LOG")
tool 0 log "$sent" --since 10:00 --names
[[ $(wc -l <out) == 6 ]] || fail "--since is not kept: $(cat out)"
says out 'mechanism=4176 (CKM_ECDH1_DERIVE)'
tool 2 log "$sent" --since 10
tool 1 log "$(native "$E2E_FOLDER/nothing.LOG")"
printf '21/11::10:00:00:000-> ->ERROR ::=>%s\n' 'C_Sign: operation not initialized, activeOperation=0' 'init hash failed 1' 'Encrypt data failed : 1' >sent2.LOG
tool 0 log "$(native "$E2E_FOLDER/sent2.LOG")" --explain
says out 'not begun with its Init function' 'did not compute the digest' 'too long for the key'

# The report: refusals explained, gaps to scale, nothing that acts as markup; and without names.
tool 0 report page.html --log "$sent"
says out '7 log lines, 2 refusals'
says page.html 'C_SignInit</b> <i>250 ms' 'class=g style=height:20px>750 ms' '>1.0 s<' 'offer this mechanism' \
  'Secret &lt;b&gt;Name' 'CKM_ECDH1_DERIVE' "$(basename "$E2E_FOLDER")" 'AABBCCDDEEFF'
[[ $(grep -cE '(src|href)=["h]*http|url\(' page.html) == 0 ]] || fail "the page refers to others"
silent page.html 'id=p0' # a filter for one program
tool 0 report private.html --private --log "$sent"
tool 0 report nobody.html --program nobody.exe
says out '0 log lines, 0 refusals'
serial=$(run tavrin-tool token list --json | jq -r '.[0].serial')
silent private.html Secret AABBCCDDEEFF 0123456789ABCDEF anna "$serial" "$keyId" Right '"key"' "$E2E_FOLDER" "$(cat pin)"
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
tool 0 report many.html --log "$(native "$E2E_FOLDER/many.LOG")"
(($(stat -c %s many.html) < 20000000)) || fail "the page of 100000 lines is too large"
says many.html '10000 times, first at 00:00:00.000'
