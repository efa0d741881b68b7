#!/bin/bash
# The tables of calls and codes: first on SoftHSM2, which proves them, where there is one; then on our own library.
source "$(dirname "$0")/../e2e/common.sh"

openssl genrsa -out imported.key 2048 2>/dev/null
openssl rsa -in imported.key -traditional -outform DER -out imported.der 2>/dev/null
openssl req -newkey rsa:2048 -nodes -keyout certificate.key -utf8 -subj /CN=Test -x509 \
  -outform DER -out certificate.der 2>/dev/null

softHsm=/usr/lib/softhsm/libsofthsm2.so
if [[ $E2E_SYSTEM != Windows && -z $E2E_SANITIZERS ]]; then
  mkdir softhsm
  printf 'directories.tokendir = %s/softhsm\nobjectstore.backend = file\nlog.level = ERROR\n' "$PWD" >softhsm.conf
  export SOFTHSM2_CONF=$PWD/softhsm.conf
  for token in first second third; do
    softhsm2-util --init-token --free --label $token --pin "$(<pin)" --so-pin "$(<so-pin)" >/dev/null
  done
  E2E_MODULE=$softHsm STANDARD_PEER=softhsm run standard_test "$@" || fail "the rows differ on SoftHSM2"
fi

createToken first
createToken second
createToken third
E2E_MODULE=$(native "$standardLibrary") run standard_test "$@"

# On Linux TMPDIR has the log, with errors and without calls.
if [[ $E2E_SYSTEM != Windows ]]; then
  grep -rq 'ERROR ::=>C_GetAttributeValue: invalid hObject' tmp || fail "the log lacks an error"
  ! grep -r 'C_GetAttributeValue: no value for type' tmp || fail "an attribute that an object lacks is an error in the log"
fi
