#!/bin/bash
# Java's SunPKCS11: keytool and jarsigner.
source "$(dirname "$0")/lib.sh"
unset JAVA_TOOL_OPTIONS
printf '%s\n' 'name = Tavrin' "library = $module" 'slotListIndex = 0' >plain.cfg
# Java sends an empty private-key template. The module needs at least one attribute, and the key type for EC.
cat - plain.cfg >java.cfg <<'END'
attributes(generate, CKO_PRIVATE_KEY, CKK_RSA) = { CKA_SIGN = true CKA_DECRYPT = true }
attributes(generate, CKO_PRIVATE_KEY, CKK_EC) = { CKA_KEY_TYPE = 3 CKA_SIGN = true }
END
options() { echo "-addprovider SunPKCS11 -providerarg $config -keystore NONE -storetype PKCS11 -storepass:env PIN"; }
keystore() { keytool "$1" $(options) "${@:2}"; }
generate() { keystore -genkeypair -alias "$1" -dname CN=localhost -keyalg "${@:2}"; }

createToken
zip -q plain.jar document
config=plain.cfg
refuses "EC key generation as Java is" CKR_ARGUMENTS_BAD generate x EC -groupname secp256r1
check "RSA key generation as Java is" generate loose RSA -keysize 2048
shows "finds no key for the certificate" 'loose, trustedCertEntry' keystore -list
# Java generated this key in memory and imported it. The module ignores the ID of imported keys; Java finds keys by ID.
id=$(loggedIn --list-objects --type privkey 2>/dev/null | sed -n 's/.*ID: *//p')
check "give the key its alias as ID" loggedIn --type privkey --id "$id" --set-id "$(printf loose | od -An -tx1 | tr -d ' \n')"
config=java.cfg
check "generate RSA on the token" generate jrsa RSA -keysize 2048 -providerName SunPKCS11-Tavrin
check "generate EC on the token" generate jec EC -groupname secp384r1 -providerName SunPKCS11-Tavrin
for alias in loose jrsa jec; do
  quietly keystore -exportcert -rfc -alias $alias -file $alias.crt
  quietly keytool -importcert -noprompt -keystore trusted -storepass:env PIN -alias $alias -file $alias.crt
  shows "sign a jar with $alias" 'jar signed' jarsigner $(options) -signedjar $alias.jar plain.jar $alias
  shows "jarsigner verifies" '^jar verified\.' jarsigner -verify -keystore trusted -storepass:env PIN $alias.jar
done

# Without the lock, signatures are made with the key of another thread's operation.
shows "four threads with a lock from initSign to sign" '^200 of 200' java "$here/programs/Threads.java" java.cfg lock

check "request" keystore -certreq -alias jrsa -file jrsa.csr
certificateAuthority
check "a CA accepts it" openssl x509 -req -in jrsa.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 30 -out reply.crt
cat ca.crt >>reply.crt
shows "import the CA's reply" 'reply was installed' keystore -importcert -noprompt -alias jrsa -file reply.crt
shows "with its chain" 'chain length: 2' keystore -list -v -alias jrsa
refuses "a certificate as trusted" 'only be set by token initialization' keystore -importcert -noprompt -alias ca -file ca.crt
check "delete an entry" keystore -delete -alias jec
shows "it is gone" '^2$' eval 'keystore -list | grep -c PrivateKeyEntry'
