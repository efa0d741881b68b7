#!/bin/bash
# Firefox and Chromium log in to a TLS server with a key of the token. They run on a virtual screen. xdotool types the
# addresses and the PIN. The check is the server's log.
source "$(dirname "$0")/lib.sh"
useStandard
unset TAVRIN_HOME

createTokenWithKeys
serverCertificate /CN=localhost subjectAltName=DNS:localhost
clientCertificate rsa 01
port=$(port)
startNginx '' "log_format visit '\$uri \$ssl_client_verify \$ssl_client_s_dn';
  access_log $work/visits visit;
  ssl_session_tickets off;
  keepalive_timeout 0;
  server {
    listen 127.0.0.1:$port ssl;
    ssl_certificate $work/server.crt;
    ssl_certificate_key $work/server.key;
    ssl_client_certificate $work/ca.crt;
    ssl_verify_client optional;
    location / { default_type text/plain; return 200 Hello; }
  }"
Xvfb -displayfd 3 -screen 0 1200x900x24 3>display 2>/dev/null &
servers+=($!)
quietly eventually test -s display
DISPLAY=:$(cat display)
export DISPLAY

# typeInto WINDOW-TITLE KEY... TEXT: presses the keys, types the text, presses Return.
typeInto() {
  local key
  eventually focus "$1" >/dev/null
  sleep 0.5
  for key in "${@:2:$#-2}"; do xdotool key "$key"; done
  xdotool type --delay 20 "${!#}"
  xdotool key Return
}
# A window that has just appeared cannot always be focused yet.
focus() {
  timeout 5 xdotool windowfocus --sync "$(xdotool search --onlyvisible --name "$1" | tail -1)"
}
visit() { typeInto "$browser" ctrl+l "https://localhost:$port/$1"; }
visited() { eventually grep -x "/$1 $2" visits; }
# Both are repeated until they succeed: on a busy machine a browser may miss keys.
revisited() { visit "$1" && sleep 4 && grep -x "/$1 $2" visits; }
asked() { visit "$1" && sleep 4 && xdotool search --onlyvisible --name "$2"; }
unlock() { quietly eventually asked "$1" "$2" && typeInto "$2" "$PIN"; }

browser='Mozilla Firefox'
profile=$work/profile
mkdir "$profile"
recipe Firefox
printf 'user_pref("%s", %s);\n' security.default_personal_cert '"Select Automatically"' \
  datareporting.policy.dataSubmissionEnabled false browser.aboutwelcome.enabled false >"$profile/user.js"
background firefox-esr --profile "$profile" --no-remote about:blank
unlock first 'Password Required'
check "Firefox logs in" visited first 'SUCCESS CN=User rsa'
quietly "$tool" token unplug client
sleep 2
check "without the token it does not" eventually revisited pulled 'NONE -'
quietly "$tool" token plug client
sleep 2
unlock again 'Password Required'
check "with the token back it does" visited again 'SUCCESS CN=User rsa'

browser=Chromium
recipe Chromium
options=()
[[ $EUID != 0 ]] || options=(--no-sandbox) # the sandbox does not work as root
background chromium "${options[@]}" --no-first-run --user-data-dir="$work/chromium" about:blank
unlock chromium 'Unlock Security Device'
# Return accepts the certificate that the browser has selected in its list.
answered() { xdotool key Return && visited chromium 'SUCCESS CN=User rsa'; }
check "Chromium logs in" eventually answered
