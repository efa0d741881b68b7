#!/bin/bash
# The examples do what they say: a signature that openssl accepts, and a line for every token that comes or goes.
source "$(dirname "$0")/common.sh"

createToken example
echo "A document." >document
export TAVRIN_PIN
TAVRIN_PIN=$(cat "$E2E_PIN_FILE")
# On the small stack that plug-in hosts may give; sanitizers need more. Wine has stacks of its own.
[[ -n $E2E_SANITIZERS || $E2E_SYSTEM == Windows ]] || ulimit -s 64
for kind in rsa ec; do
  run sign_file "$E2E_MODULE" env:TAVRIN_PIN "my $kind key" document $kind.new $kind >/dev/null
  run sign_file "$E2E_MODULE" "file:$(native "$E2E_PIN_FILE")" "my $kind key" document $kind.again >/dev/null
  run sign_file "$(native "$standardLibrary")" env:TAVRIN_PIN "my $kind key" document $kind.found >/dev/null
  run sign_file "$(native "$standardLibrary")" env:TAVRIN_PIN "its $kind key" document $kind.own $kind >/dev/null
  for name in new again found own; do
    openssl dgst -sha256 -verify $kind.$name.pem -signature $kind.$name.sig document
  done
done
! run sign_file "$E2E_MODULE" env:TAVRIN_PIN "no such key" document none 2>error || fail "signed with a key that is not there"
grep -q 'no key labelled "no such key"' error || fail "unclear: $(cat error)"

# The first event is for the token that was connected from the beginning.
: >events
launch wait_for_token "$E2E_MODULE" 3 >>events &
awaited '(($(wc -l <events) >= 2))'
run tavrin-tool token unplug example
awaited '(($(wc -l <events) >= 3))'
run tavrin-tool token plug example
wait
diff -u --strip-trailing-cr - events <<'END' || fail "unexpected events"
1 token(s) "example"
1 token(s) "example"
0 token(s)
1 token(s) "example"
END
