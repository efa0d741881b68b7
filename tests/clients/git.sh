#!/bin/bash
# git with SSH keys of the token: commits signed through an agent, and a clone from an SSH server.
source "$(dirname "$0")/lib.sh"
useStandard
PATH=$PATH:/usr/sbin

createTokenWithKeys
answerSsh
mkdir ~/.ssh
email=me@example.com label=ec
git config --global user.name Me
git config --global user.email $email
recipe git
[[ -z ${SSH_AGENT_PID-} ]] || servers+=("$SSH_AGENT_PID")
quietly git init project
cp document project
quietly git -C project add document
check "the agent signs a commit" git -C project commit -m Document
shows "git verifies" "Good \"git\" signature for $email with ECDSA" git -C project verify-commit HEAD
ssh-keygen -q -t ed25519 -N '' -f host
echo "localhost $(cut -d' ' -f1,2 host.pub)" >known
cut -d' ' -f1,2 ~/.ssh/token.pub >authorized
printf '%s\n' "HostKey $work/host" "AuthorizedKeysFile $work/authorized" 'StrictModes no' 'UsePAM no' 'PasswordAuthentication no' >sshd.conf
[[ $EUID != 0 ]] || mkdir -p /run/sshd
git config --global core.sshCommand "$(git config core.sshCommand) -F none -o UserKnownHostsFile=$work/known -o IdentityAgent=none \
  -o 'ProxyCommand=$(command -v sshd) -i -E $work/sshd.log -f $work/sshd.conf'"
check "clone over SSH" git clone "ssh://$(id -un)@localhost$work/project" copy
shows "the server let the token's key in" 'Accepted publickey' cat sshd.log
check "the same document" cmp document copy/document
