# pykcs11.py MODULE DOCUMENT: what a Python program does with a token through PyKCS11. Leaves signatures for openssl.
import hashlib
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


p256 = bytes.fromhex("06082a8648ce3d030107")
for name, identifier, mechanism, public in (
    ("py rsa", b"\x21", ck.CKM_RSA_PKCS_KEY_PAIR_GEN, [(ck.CKA_MODULUS_BITS, 2048), (ck.CKA_PUBLIC_EXPONENT, (1, 0, 1))]),
    ("py ec", b"\x22", ck.CKM_EC_KEY_PAIR_GEN, [(ck.CKA_EC_PARAMS, p256)]),
):
    common = [(ck.CKA_TOKEN, True), (ck.CKA_LABEL, name), (ck.CKA_ID, identifier)]
    session.generateKeyPair(public + common + [(ck.CKA_VERIFY, True)], common + [(ck.CKA_SIGN, True), (ck.CKA_PRIVATE, True)],
                            PyKCS11.Mechanism(mechanism, None))

rsa, ec = find("py rsa", ck.CKO_PRIVATE_KEY), find("py ec", ck.CKO_PRIVATE_KEY)
withHash = PyKCS11.Mechanism(ck.CKM_SHA256_RSA_PKCS, None)
signature = bytes(session.sign(rsa, data, withHash))
open("py-rsa.sig", "wb").write(signature)
for document, right in (data, True), (data + b"!", False):
    assert session.verify(find("py rsa", ck.CKO_PUBLIC_KEY), document, signature, withHash) == right
open("py-ec.raw", "wb").write(bytes(session.sign(ec, hashlib.sha256(data).digest(), PyKCS11.Mechanism(ck.CKM_ECDSA, None))))
assert bytes(session.digest(data, PyKCS11.Mechanism(ck.CKM_SHA256, None))) == hashlib.sha256(data).digest()
assert session.getAttributeValue(rsa, [ck.CKA_KEY_TYPE, ck.CKA_TOKEN, ck.CKA_PRIVATE_EXPONENT]) == [ck.CKK_RSA, True, None]
session.setAttributeValue(rsa, [(ck.CKA_LABEL, "renamed")])
assert bytes(session.getAttributeValue(find("renamed", ck.CKO_PRIVATE_KEY), [ck.CKA_ID])[0]) == b"\x21"
session.logout()
assert not session.findObjects([(ck.CKA_CLASS, ck.CKO_PRIVATE_KEY)])
session.closeSession()
