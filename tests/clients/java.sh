#!/bin/bash
# Java's SunPKCS11: keytool and jarsigner.
source "$(dirname "$0")/lib.sh"
unset JAVA_TOOL_OPTIONS
cat >plain.cfg <<END
name = Tavrin
library = $module
slotListIndex = 0
END
# Java sends an empty private-key template. The module needs at least one attribute, and the key type for EC.
cat - plain.cfg >java.cfg <<'END'
attributes(generate, CKO_PRIVATE_KEY, CKK_RSA) = { CKA_SIGN = true CKA_DECRYPT = true }
attributes(generate, CKO_PRIVATE_KEY, CKK_EC) = { CKA_KEY_TYPE = 3 CKA_SIGN = true }
END
config=java.cfg
options() { echo "-addprovider SunPKCS11 -providerarg $config -keystore NONE -storetype PKCS11 -storepass:env PIN"; }
keystore() { keytool "$1" $(options) "${@:2}"; }
sign() { jarsigner $(options) -signedjar "$1.jar" plain.jar "$1"; }

createToken
zip -q plain.jar document
config=plain.cfg
refuses "EC key generation as Java is" CKR_ARGUMENTS_BAD keystore -genkeypair -alias x -keyalg EC -groupname secp256r1 -dname CN=x
check "RSA key generation as Java is" keystore -genkeypair -alias loose -keyalg RSA -keysize 2048 -dname CN=loose
shows "finds no key for the certificate" 'loose, trustedCertEntry' keystore -list
# Java generated this key in memory and imported it. The module ignores the ID of imported keys; Java finds keys by ID.
id=$(loggedIn --list-objects --type privkey 2>/dev/null | sed -n 's/.*ID: *//p')
check "give the key its alias as ID" loggedIn --type privkey --id "$id" --set-id "$(printf loose | od -An -tx1 | tr -d ' \n')"
shows "now it belongs" 'loose, PrivateKeyEntry' keystore -list

config=java.cfg
check "generate RSA on the token" keystore -genkeypair -providerName SunPKCS11-Tavrin -alias jrsa -keyalg RSA -keysize 2048 -dname CN=localhost
check "generate EC on the token" keystore -genkeypair -providerName SunPKCS11-Tavrin -alias jec -keyalg EC -groupname secp384r1 -dname CN=localhost
shows "three keys" '^3$' eval 'keystore -list | grep -c PrivateKeyEntry'
for alias in loose jrsa jec; do
  check "export the certificate of $alias" keystore -exportcert -rfc -alias $alias -file $alias.crt
  check "openssl verifies" openssl verify -CAfile $alias.crt $alias.crt
  check "request" keystore -certreq -alias $alias -file $alias.csr
  check "openssl verifies" openssl req -in $alias.csr -verify -noout
  shows "sign a jar" 'jar signed' sign $alias
  quietly keytool -importcert -noprompt -keystore trusted -storepass:env PIN -alias $alias -file $alias.crt
  shows "jarsigner verifies" '^jar verified\.' jarsigner -verify -keystore trusted -storepass:env PIN $alias.jar
  quietly unzip -o -d $alias $alias.jar
  check "openssl verifies" eval "openssl cms -verify -binary -inform DER -in $alias/META-INF/*.[RE][SC]* -content $alias/META-INF/*.SF \
    -CAfile $alias.crt -purpose any -out verified"
done

# Without the lock, signatures are made with the key of another thread's operation.
shows "four threads with a lock from initSign to sign" '^200 of 200' java "$here/programs/Threads.java" java.cfg lock

openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.crt -subj /CN=CA -days 30 2>/dev/null
openssl x509 -req -in jrsa.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 30 -out reply.crt 2>/dev/null
cat ca.crt >>reply.crt
shows "import a CA's reply" 'reply was installed' keystore -importcert -noprompt -alias jrsa -file reply.crt
shows "with its chain" 'chain length: 2' keystore -list -v -alias jrsa
refuses "a certificate as trusted" 'only be set by token initialization' keystore -importcert -noprompt -alias ca -file ca.crt
check "delete an entry" keystore -delete -alias jec
shows "it is gone" '^2$' eval 'keystore -list | grep -c PrivateKeyEntry'
