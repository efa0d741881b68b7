// node_windows.js MODULE PIN-FILE: what an application in Node.js does with a token. Node's own cryptography checks the
// signatures.
"use strict";
const assert = require("node:assert");
const crypto = require("node:crypto");
const fs = require("node:fs");
const p11 = require("pkcs11js");

const [moduleFile, pinFile] = process.argv.slice(2);
const pin = fs.readFileSync(pinFile, "utf8").trim();
const data = Buffer.from("A document that somebody signs.");
const cryptoki = new p11.PKCS11();
const textOf = (field) => field.split("\0")[0].trim();
const attribute = (type, value) => ({ type, value });
const mechanism = (type) => ({ mechanism: type, parameter: null });

cryptoki.load(moduleFile);
cryptoki.C_Initialize();
assert.equal(textOf(cryptoki.C_GetInfo().libraryDescription), "Tavrin PKCS11 Library");
const slot = cryptoki.C_GetSlotList(true)[0];
assert.equal(textOf(cryptoki.C_GetTokenInfo(slot).label), "Client token");
assert.equal(cryptoki.C_GetMechanismList(slot).length, 22);
const session = cryptoki.C_OpenSession(slot, p11.CKF_SERIAL_SESSION | p11.CKF_RW_SESSION);
cryptoki.C_Login(session, p11.CKU_USER, pin);

const generate = (label, keyType, generation, publicAttribute) =>
  cryptoki.C_GenerateKeyPair(session, mechanism(generation), [publicAttribute], [
    attribute(p11.CKA_KEY_TYPE, keyType),
    attribute(p11.CKA_SIGN, true),
    attribute(p11.CKA_DECRYPT, true),
    attribute(p11.CKA_LABEL, label),
  ]);
const read = (object, type) => cryptoki.C_GetAttributeValue(session, object, [{ type }])[0].value;
const sign = (type, key) => {
  cryptoki.C_SignInit(session, mechanism(type), key);
  return cryptoki.C_Sign(session, data, Buffer.alloc(512));
};
const publicKey = (key) => crypto.createPublicKey({ key, format: "jwk" });
const base64 = (bytes) => bytes.toString("base64url");

const rsa = generate("node rsa", p11.CKK_RSA, p11.CKM_RSA_PKCS_KEY_PAIR_GEN, attribute(p11.CKA_MODULUS_BITS, 2048));
const [n, e] = [p11.CKA_MODULUS, p11.CKA_PUBLIC_EXPONENT].map((type) => base64(read(rsa.publicKey, type)));
assert(crypto.verify("sha256", data, publicKey({ kty: "RSA", n, e }), sign(p11.CKM_SHA256_RSA_PKCS, rsa.privateKey)));

const p256 = Buffer.from("06082a8648ce3d030107", "hex");
const ec = generate("node ec", p11.CKK_EC, p11.CKM_EC_KEY_PAIR_GEN, attribute(p11.CKA_EC_PARAMS, p256));
const point = read(ec.publicKey, p11.CKA_EC_POINT).subarray(2); // after the header of an octet string
const key = publicKey({ kty: "EC", crv: "P-256", x: base64(point.subarray(1, 33)), y: base64(point.subarray(33)) });
const accepted = (signature) => crypto.verify("sha256", data, { key, dsaEncoding: "ieee-p1363" }, signature);
assert(accepted(sign(p11.CKM_ECDSA_SHA256, ec.privateKey)));

// The module reads a label up to its NUL.
const label = attribute(p11.CKA_LABEL, "node ec\0");
const count = () => {
  cryptoki.C_FindObjectsInit(session, [attribute(p11.CKA_CLASS, p11.CKO_PRIVATE_KEY), label]);
  const found = cryptoki.C_FindObjects(session, 8192).length;
  cryptoki.C_FindObjectsFinal(session);
  return found;
};
assert.equal(count(), 1);

cryptoki.C_SignInit(session, mechanism(p11.CKM_ECDSA_SHA256), ec.privateKey);
cryptoki.C_SignAsync(session, data, Buffer.alloc(512)).then((bytes) => {
  assert(accepted(bytes));
  cryptoki.C_DestroyObject(session, ec.privateKey);
  assert.equal(count(), 0);
  cryptoki.C_Logout(session);
  cryptoki.C_CloseSession(session);
  cryptoki.C_Finalize();
  cryptoki.close();
  console.log("everything is as it should be");
});
