#!/bin/bash
# Tests the Debian packages: checks them with lintian, then installs, uses and purges them in a clean Debian that mmdebstrap
# makes. It has the arguments of the clients' tests: packaging/debian/test_package.sh BUILD_DIR_LINUX BUILD_DIR_WINDOWS
packaging=$(cd "$(dirname "$0")" && pwd)
source "$packaging/../../tests/clients/lib.sh"
unset TAVRIN_HOME TAVRIN_SOFT_TOKENS TAVRIN_REGISTRY
clean=$(dirname "$linux")/clean-debian.tar # kept from one run to the next
debian=$work/debian
inside() { chroot "$debian" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
asUser() { inside su user -c "$1"; }
listed() { (cd "$debian" && find etc usr -path '*tavrin*' | LC_ALL=C sort); }

check "make the packages" "$packaging/package.sh" packages
shows "lintian has nothing to say" '^$' eval 'lintian packages/*.deb && echo'

if [[ ! -f $clean ]]; then
  quietly mmdebstrap --format=tar --variant=apt --include=gnutls-bin "$(. /etc/os-release && echo "$VERSION_CODENAME")" "$clean.new"
  mv "$clean.new" "$clean"
fi
mkdir "$debian"
tar -x -C "$debian" -f "$clean" --exclude='./dev/*'
cp /etc/resolv.conf "$debian/etc/"
[[ -c $debian/dev/null ]] || mknod -m 666 "$debian/dev/null" c 1 3
[[ -c $debian/dev/urandom ]] || mknod -m 666 "$debian/dev/urandom" c 1 9
cp packages/*.deb "$debian/tmp/"
chmod 1777 "$debian/tmp"
listed >before
quietly inside useradd -m user
install() { inside sh -c "apt-get install -q -y --no-install-recommends /tmp/$1_*.deb"; }
container=$(sed -n '/^```Dockerfile/,/^```$/p' "$packaging/../../docs/application-developers.md" |
  sed '/^```/d; /^\(FROM\|COPY\) /d; s/^RUN //; s/^ENV /export /')
shows "the commands for a container install and make a token" 'created ci' inside sh -ec "$container"
printf '%s\n' "$PIN" >"$debian/home/user/pin"
cp so-pin "$debian/home/user/so-pin"
inside chown -R user /home/user
shows "a user makes a token" 'created mine' asUser \
  'cd && tavrin-tool token create mine --label "My token" --pin-file pin --so-pin-file so-pin'
shows "and sees it through p11-kit" 'Label: My token' asUser 'p11tool --list-tokens'
shows "status finds the module and the folder for CA certificates" '/TavrinDSC/Certificates$' asUser \
  'tavrin-tool status || [ $? = 3 ]'
quietly openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -subj /CN=CA -days 30 -out "$debian/etc/tavrin/ca-certificates/own.pem"
shows "which leads to /etc" 'certificates +1$' asUser 'tavrin-tool status || [ $? = 3 ]'
shows "the administrator sets the log level" '^3$' inside sh -c \
  'tavrin-tool log level 3 && cat /etc/tavrin/registry/*/*/*/logLevel'
for page in man1/tavrin-tool.1 man7/tavrin-pkcs11.7; do
  check "the manual page $page" eval 'zcat "$debian/usr/share/man/$page.gz" | man --warnings -l - 2>man-errors >page &&
    ! [[ -s man-errors ]] && grep -q NAME page'
done
shows "the completion of words" 'status.*token|token.*status' bash -c "source '$debian/usr/share/bash-completion/completions/tavrin-tool' &&
  COMP_WORDS=(tavrin-tool '') COMP_CWORD=1 && _tavrin_tool; echo \${COMPREPLY[*]}"
check "install the headers" install tavrin-pkcs11-dev
shows "pkg-config knows the module" '^/usr/lib/.*/libtavrin-pkcs11.so$' env \
  PKG_CONFIG_PATH="$(dirname "$debian"/usr/lib/*/pkgconfig/tavrin-pkcs11.pc)" pkg-config --variable=module tavrin-pkcs11
check "the examples compile as the guide says" g++ -std=c++20 -I "$debian/usr/include/tavrin" -o sign_file \
  "$debian/usr/share/doc/tavrin-pkcs11-dev/examples"/{sign_file,load_module,load_module_posix,public_key}.cpp -ldl

rm "$debian/etc/tavrin/ca-certificates/own.pem"
check "purge" inside apt-get purge -q -y tavrin-pkcs11 tavrin-pkcs11-dev
listed >after
check "nothing is left" diff before after
shows "the user's token is kept" mine ls "$debian/home/user/.local/share/tavrin/soft-tokens"
