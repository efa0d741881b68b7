#!/bin/bash
# The standard module with many clients. None of them needs an option, an attribute or a workaround for it.
source "$(dirname "$0")/lib.sh"
useStandard
programs=$here/programs
unset JAVA_TOOL_OPTIONS
export GNUTLS_PIN=$PIN
createTokenWithKeys

# pkcs11-tool: commands that the other module refuses or does differently.
openssl genrsa -traditional 2048 2>/dev/null | openssl rsa -traditional -outform DER -out own.der 2>/dev/null
openssl rsa -inform DER -in own.der -pubout -out own.pem 2>/dev/null
check "pkcs11-tool imports an RSA key" loggedIn --write-object own.der --type privkey --label own --id 09
check "deletes its public half" loggedIn --delete-object --type pubkey --id 09
check "signs by the ID that it gave" loggedIn --sign --mechanism SHA256-RSA-PKCS --id 09 --input-file document --output-file signature
check "openssl verifies" verifySignature own.pem signature -sha256
check "deletes the private half" loggedIn --delete-object --type privkey --id 09
shows "--test has no complaint" '^No errors' loggedIn --test
check "--test-fork" loggedIn --test-fork

# A program that loads the library by a relative path and then changes its folder, and forks.
cat >loading.py <<'PYTHON'
import ctypes, os, sys
def locked(): return [line for line in open("/proc/self/status") if line.startswith("VmLck")]
os.chdir(os.path.dirname(sys.argv[1]))
library = ctypes.CDLL("./" + os.path.basename(sys.argv[1]))
os.chdir("/")
inParent = locked()
if os.fork() == 0:
    os._exit(library.C_Initialize(None) != 0 or locked() != inParent)
sys.exit(os.wait()[1] != 0 or library.C_Initialize(None) != 0)
PYTHON
check "its folder is that of loading, and a child's PINs are locked in memory" python3 loading.py "$module"

# GnuTLS: URIs by the token's label.
p11() { p11tool --provider "$module" --batch "$@"; }
token=pkcs11:token=Client%20token
shows "p11tool: the token's URI" "token=Client%20token\$" p11 --list-token-urls
check "generates an EC key" p11 --login --generate-privkey=ecdsa --curve secp256r1 --label gnutls --id 11 --outfile gnutls.pem "$token"
shows "on its curve" prime256v1 openssl pkey -pubin -in gnutls.pem -noout -text
check "its own signature test" p11 --login --test-sign "$token;object=gnutls;type=private"
check "exports by label" p11 --export "$token;object=ec;type=public" --outfile exported.pem
check "the same key" cmp ec.pem exported.pem

# NSS: EC keys of its own, with a certificate.
mkdir db && head -c 64 /dev/urandom >noise
quietly certutil -N -d db --empty-password
quietly modutil -dbdir db -force -add tavrin -libfile "$module"
certs() { certutil "$1" -d db -h "Client token" -f pin "${@:2}"; }
for row in "ec -q nistp256" "rsa -g 2048"; do
  read -r type option value <<<"$row"
  check "certutil generates $type" certs -S -x -z noise -n "nss$type" -s "CN=NSS $type" -t CT,CT,CT -k "$type" "$option" "$value" -m "$RANDOM"
  shows "the user's own" "^Client token:nss$type +CTu,Cu,Cu" certs -L
  quietly certs -L -n "Client token:nss$type" -a -o "nss$type.pem"
  check "cmsutil signs" cmsutil -S -d db -f pin -N "Client token:nss$type" -i document -o "nss$type.cms" -H SHA256
  check "openssl verifies" verifyCms "nss$type.cms" "nss$type.pem"
done

openssl req -x509 -newkey rsa:2048 -nodes -keyout file.key -subj /CN=Imported -out file.crt 2>/dev/null
openssl pkcs12 -export -inkey file.key -in file.crt -name imported -passout file:pin -out file.p12
check "pk12util imports a PKCS#12 file" pk12util -i file.p12 -d db -h "Client token" -k pin -w pin
shows "key and certificate belong together" "^Client token:imported +u,u,u" certs -L

# Java without any "attributes" line.
printf '%s\n' 'name = Tavrin' "library = $module" 'slotListIndex = 0' >java.cfg
keystore() { keytool "$1" -addprovider SunPKCS11 -providerarg java.cfg -keystore NONE -storetype PKCS11 -storepass:env PIN "${@:2}"; }
check "keytool generates RSA" keystore -genkeypair -providerName SunPKCS11-Tavrin -alias jrsa -keyalg RSA -keysize 2048 -dname CN=localhost
check "generates EC" keystore -genkeypair -providerName SunPKCS11-Tavrin -alias jec -keyalg EC -groupname secp256r1 -dname CN=localhost
check "imports a key that it made itself" keystore -genkeypair -alias loose -keyalg RSA -keysize 2048 -dname CN=loose
shows "has a key for each certificate" '^3$' eval 'keystore -list | grep -cE "^(jrsa|jec|loose), PrivateKeyEntry"'
for alias in jrsa jec loose; do
  quietly keystore -exportcert -rfc -alias $alias -file $alias.crt
  check "openssl verifies $alias" openssl verify -CAfile $alias.crt $alias.crt
done
shows "Java with four threads" '^200 of 200' java "$programs/Threads.java" java.cfg

check "PyKCS11" /usr/bin/python3 "$programs/pykcs11.py" "$module" document
quietly publicKey 21 py-rsa.pem
check "openssl verifies" verifySignature py-rsa.pem py-rsa.sig -sha256

export GOPATH=/usr/share/gocode GO111MODULE=off GOFLAGS= GOCACHE=$linux/go-cache
quietly go build -o crypto11 "$programs/crypto11.go"
check "crypto11" ./crypto11 "$module"

nodePackages "$linux/node-standard" node-webcrypto-p11@2
compileAddon "$linux/node-standard" g++ -fPIC
export NODE_PATH=$linux/node-standard/node_modules
shows "graphene" 'as it should be' node "$programs/graphene.js" "$module" pin graphene
shows "node-webcrypto-p11" 'as it should be' node "$programs/webcrypto.js" "$module" pin
