// node_windows.js MODULE PIN-FILE DOCUMENT: what an application in Node.js does with a token. Leaves public keys and
// signatures for openssl, and prints a line for everything else that it found.
"use strict";
const crypto = require("node:crypto");
const fs = require("node:fs");
const p11 = require("pkcs11js");

const [moduleFile, pinFile, documentFile] = process.argv.slice(2);
const pin = fs.readFileSync(pinFile, "utf8").trim();
const data = fs.readFileSync(documentFile);
const cryptoki = new p11.PKCS11();
const textOf = (field) => field.split("\0")[0].trim();
const attribute = (type, value) => ({ type, value });
const mechanism = (type) => ({ mechanism: type, parameter: null });

cryptoki.load(moduleFile);
cryptoki.C_Initialize();
console.log(`module ${textOf(cryptoki.C_GetInfo().libraryDescription)}`);
const slot = cryptoki.C_GetSlotList(true)[0];
console.log(`token ${textOf(cryptoki.C_GetTokenInfo(slot).label)}`);
console.log(`${cryptoki.C_GetMechanismList(slot).length} mechanisms`);
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
const writePublicKey = (file, key) =>
  fs.writeFileSync(file, crypto.createPublicKey({ key, format: "jwk" }).export({ type: "spki", format: "pem" }));
const base64 = (bytes) => bytes.toString("base64url");

const rsa = generate("node rsa", p11.CKK_RSA, p11.CKM_RSA_PKCS_KEY_PAIR_GEN, attribute(p11.CKA_MODULUS_BITS, 2048));
writePublicKey("rsa.pem", {
  kty: "RSA",
  n: base64(read(rsa.publicKey, p11.CKA_MODULUS)),
  e: base64(read(rsa.publicKey, p11.CKA_PUBLIC_EXPONENT)),
});
fs.writeFileSync("rsa.sig", sign(p11.CKM_SHA256_RSA_PKCS, rsa.privateKey));

const p256 = Buffer.from("06082a8648ce3d030107", "hex");
const ec = generate("node ec", p11.CKK_EC, p11.CKM_EC_KEY_PAIR_GEN, attribute(p11.CKA_EC_PARAMS, p256));
const point = read(ec.publicKey, p11.CKA_EC_POINT).subarray(2); // after the header of an octet string
writePublicKey("ec.pem", { kty: "EC", crv: "P-256", x: base64(point.subarray(1, 33)), y: base64(point.subarray(33)) });
fs.writeFileSync("ec.raw", sign(p11.CKM_ECDSA_SHA256, ec.privateKey));

// The module reads a label up to its NUL.
const label = attribute(p11.CKA_LABEL, "node ec\0");
cryptoki.C_FindObjectsInit(session, [attribute(p11.CKA_CLASS, p11.CKO_PRIVATE_KEY), label]);
console.log(`${cryptoki.C_FindObjects(session, 8192).length} key labelled node ec`);
cryptoki.C_FindObjectsFinal(session);

cryptoki.C_SignInit(session, mechanism(p11.CKM_ECDSA_SHA256), ec.privateKey);
cryptoki.C_SignAsync(session, data, Buffer.alloc(512)).then((bytes) => {
  console.log(`signed in another thread ${bytes.length} bytes`);
  cryptoki.C_DestroyObject(session, ec.privateKey);
  cryptoki.C_FindObjectsInit(session, [attribute(p11.CKA_CLASS, p11.CKO_PRIVATE_KEY), label]);
  console.log(`the key is gone ${cryptoki.C_FindObjects(session, 1).length === 0}`);
  cryptoki.C_FindObjectsFinal(session);
  cryptoki.C_Logout(session);
  cryptoki.C_CloseSession(session);
  cryptoki.C_Finalize();
  cryptoki.close();
});
