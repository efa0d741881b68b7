#!/bin/bash
# OpenSSH: public keys, an agent that signs with the token, and a user certificate.
source "$(dirname "$0")/lib.sh"

createTokenWithKeys
quietly loggedIn --keypairgen --id 03 --label ec384 --key-type EC:secp384r1
check "read the public keys" eval "ssh-keygen -D '$module' >keys"
shows "three of them" '^3$' grep -c '^ssh-rsa .* rsa$\|^ecdsa-sha2-nistp256 .* ec$\|^ecdsa-sha2-nistp384 .* ec384$' keys

answerSsh
export SSH_AUTH_SOCK=$work/agent
background ssh-agent -D -a "$SSH_AUTH_SOCK" -P "$linux/bin/*"
eventually test -S "$SSH_AUTH_SOCK"
shows "add the token to the agent" 'Card added' ssh-add -s "$module"
check "the agent has the same keys" eval 'ssh-add -L | cmp - keys'
while read -r type key name; do
  echo "$type $key" >"$name.pub"
  echo "me $type $key" >>allowed
  check "the agent signs with $name" ssh-keygen -Y sign -n file -f "$name.pub" - <document
  sed -n '/BEGIN SSH/,/END SSH/p' output >"$name.signature"
  shows "ssh-keygen verifies" 'Good "file" signature' ssh-keygen -Y verify -f allowed -I me -n file -s "$name.signature" <document
done <keys

ssh-keygen -q -t ed25519 -N '' -f user
check "sign a certificate" ssh-keygen -q -D "$module" -s rsa.pub -I me -n me user.pub
shows "it names the CA" "$(ssh-keygen -lf rsa.pub | cut -d' ' -f2 | sed 's/+/\\+/g') \(using rsa-sha2-512\)" ssh-keygen -L -f user-cert.pub
shows "remove the token" 'Card removed' ssh-add -e "$module"
refuses "no keys are left" 'no identities' ssh-add -L
