// graphene.js MODULE PIN-FILE LABEL: what an application in Node.js does with a token through graphene. Node's own
// cryptography checks the results. The RSA key is kept under the label.
"use strict";
const assert = require("node:assert");
const crypto = require("node:crypto");
const fs = require("node:fs");
const graphene = require("graphene-pk11");

const [moduleFile, pinFile, name] = process.argv.slice(2);
const { ObjectClass, KeyType, KeyGenMechanism } = graphene;
const data = Buffer.from("A document that somebody signs.");
const library = graphene.Module.load(moduleFile);
library.initialize();
const slot = library.getSlots(true).items(0);
assert.equal(slot.getToken().label, "Client token");
const session = slot.open(graphene.SessionFlag.SERIAL_SESSION | graphene.SessionFlag.RW_SESSION);
session.login(fs.readFileSync(pinFile, "utf8").trim());

const generate = (mechanism, label, keyType, ofPublic, ofPrivate) =>
  session.generateKeyPair(
    mechanism,
    { token: true, keyType, label, verify: true, ...ofPublic },
    { token: true, private: true, keyType, label, sign: true, ...ofPrivate }
  );
const only = (label, objectClass) => {
  const found = session.find({ class: objectClass, label });
  assert.equal(found.length, 1, `${found.length} objects labelled ${label}`);
  return found.items(0).toType();
};
const base64 = (bytes) => bytes.toString("base64url");

generate(KeyGenMechanism.RSA, name, KeyType.RSA,
  { modulusBits: 2048, publicExponent: Buffer.from([1, 0, 1]), encrypt: true }, { decrypt: true });
const rsa = only(name, ObjectClass.PRIVATE_KEY);
const rsaValues = only(name, ObjectClass.PUBLIC_KEY).getAttribute({ modulus: null, publicExponent: null });
const rsaPublic = crypto.createPublicKey({
  key: { kty: "RSA", n: base64(rsaValues.modulus), e: base64(rsaValues.publicExponent) },
  format: "jwk",
});
const signer = session.createSign("SHA256_RSA_PKCS", rsa);
signer.update(data.subarray(0, 10));
signer.update(data.subarray(10));
assert(crypto.verify("sha256", data, rsaPublic, signer.final()));

const oaep = { key: rsaPublic, padding: crypto.constants.RSA_PKCS1_OAEP_PADDING, oaepHash: "sha1" };
const decryption = { name: "RSA_PKCS_OAEP", params: new graphene.RsaOaepParams(graphene.MechanismEnum.SHA1, graphene.RsaMgf.MGF1_SHA1) };
const plaintext = session.createDecipher(decryption, rsa).once(crypto.publicEncrypt(oaep, data), Buffer.alloc(512));
assert(data.equals(plaintext));

generate(KeyGenMechanism.EC, "graphene ec", KeyType.EC, { paramsEC: graphene.NamedCurve.getByName("secp256r1").value }, { derive: true });
const ec = only("graphene ec", ObjectClass.PRIVATE_KEY);
const point = only("graphene ec", ObjectClass.PUBLIC_KEY).getAttribute("pointEC").subarray(2); // after the octet string's header
const ecPublic = crypto.createPublicKey({
  key: { kty: "EC", crv: "P-256", x: base64(point.subarray(1, 33)), y: base64(point.subarray(33)) },
  format: "jwk",
});
const digest = session.createDigest("SHA256").once(data);
assert(digest.equals(crypto.createHash("sha256").update(data).digest()));
const peer = crypto.createECDH("prime256v1");
const exchange = { name: "ECDH1_DERIVE", params: new graphene.EcdhParams(graphene.EcKdf.NULL, null, peer.generateKeys()) };
const secret = session.deriveKey(exchange, ec, {
  class: ObjectClass.SECRET_KEY, keyType: KeyType.GENERIC_SECRET, token: false, sensitive: false, extractable: true, valueLen: 32,
});
assert(peer.computeSecret(point).equals(secret.getAttribute("value")));

// The signature is made on another thread than the other calls.
session.createSign("ECDSA", ec).once(digest, (error, signature) => {
  assert.ifError(error);
  assert(crypto.verify("sha256", data, { key: ecPublic, dsaEncoding: "ieee-p1363" }, signature));
  session.destroy(ec);
  assert.equal(session.find({ class: ObjectClass.PRIVATE_KEY, label: "graphene ec" }).length, 0);
  session.logout();
  assert.equal(session.find({ class: ObjectClass.PRIVATE_KEY }).length, 0);
  session.close();
  library.finalize();
  console.log("everything is as it should be");
});
