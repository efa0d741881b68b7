#!/bin/bash
# OpenVPN: a client whose key is on the token, without network devices. The test answers its management interface.
source "$(dirname "$0")/lib.sh"
useStandard
PATH=$PATH:/usr/sbin

createTokenWithKeys
serverCertificate /CN=vpn extendedKeyUsage=serverAuth keyUsage=digitalSignature
clientCertificate rsa 01
clientCertificate ec 02
# In a subshell, since exec ends the shell if the connection fails.
answerPin() (
  exec 5<>"/dev/tcp/127.0.0.1/$management"
  while read -r -t 20 line <&5; do
    [[ $line == *"PASSWORD:Need '"* ]] || continue
    token=${line#*\'}
    printf 'password "%s" "%s"\n' "${token%\'*}" "$PIN" >&5
    exit 0
  done
  exit 1
)
for key in rsa ec; do
  port=$(port) management=$(port) server="127.0.0.1 $port tcp-client"
  openvpn --dev null --tls-server --proto tcp-server --local 127.0.0.1 --port "$port" --dh none --ca ca.crt \
    --cert server.crt --key server.key --verb 3 >server.log 2>&1 &
  servers+=($!)
  check "the server starts" eventually grep -q 'Listening for incoming TCP' server.log
  certificate="CN=User $key"
  recipe OpenVPN
  sed -i 's/^client$/tls-client/' client.conf # the server has no network to assign addresses from
  openvpn --config client.conf --dev null --management 127.0.0.1 "$management" \
    --management-query-passwords >client.log 2>&1 &
  servers+=($!)
  check "OpenVPN asks for the PIN, $key" eventually answerPin
  shows "the client is in, $key" 'Initialization Sequence Completed' eventually grep 'Initialization Sequence Completed' client.log
  shows "the server knows who it is" "VERIFY OK: depth=0, CN=User $key" cat server.log
done
