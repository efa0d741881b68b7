# pykcs11.py MODULE DOCUMENT: what a Python program does with a token through PyKCS11. Leaves a signature for openssl.
import os
import sys

import PyKCS11
from PyKCS11 import LowLevel as ck

library = PyKCS11.PyKCS11Lib()
library.load(sys.argv[1])
data = open(sys.argv[2], "rb").read()
slot = next(s for s in library.getSlotList(tokenPresent=True) if library.getTokenInfo(s).label.strip() == "Client token")
session = library.openSession(slot, ck.CKF_SERIAL_SESSION | ck.CKF_RW_SESSION)
session.login(os.environ["PIN"])


def find(label, kind):
    found = session.findObjects([(ck.CKA_CLASS, kind), (ck.CKA_LABEL, label)])
    assert len(found) == 1, f"{len(found)} objects are labelled {label}"
    return found[0]


common = [(ck.CKA_TOKEN, True), (ck.CKA_LABEL, "py rsa"), (ck.CKA_ID, b"\x21")]
public = [(ck.CKA_MODULUS_BITS, 2048), (ck.CKA_PUBLIC_EXPONENT, (1, 0, 1)), (ck.CKA_VERIFY, True)]
session.generateKeyPair(public + common, common + [(ck.CKA_SIGN, True), (ck.CKA_PRIVATE, True)])
key = find("py rsa", ck.CKO_PRIVATE_KEY)
withHash = PyKCS11.Mechanism(ck.CKM_SHA256_RSA_PKCS, None)
signature = bytes(session.sign(key, data, withHash))
open("py-rsa.sig", "wb").write(signature)
for document, right in (data, True), (data + b"!", False):
    assert session.verify(find("py rsa", ck.CKO_PUBLIC_KEY), document, signature, withHash) == right
assert session.getAttributeValue(key, [ck.CKA_KEY_TYPE, ck.CKA_TOKEN, ck.CKA_PRIVATE_EXPONENT]) == [ck.CKK_RSA, True, None]
session.setAttributeValue(key, [(ck.CKA_LABEL, "renamed")])
assert bytes(session.getAttributeValue(find("renamed", ck.CKO_PRIVATE_KEY), [ck.CKA_ID])[0]) == b"\x21"
session.logout()
assert not session.findObjects([(ck.CKA_CLASS, ck.CKO_PRIVATE_KEY)])
session.closeSession()
