// webcrypto.js MODULE PIN-FILE: keys of a token through the Web Crypto API, as node-webcrypto-p11 offers it. Node's own
// implementation of that API checks the results.
"use strict";
const assert = require("node:assert");
const fs = require("node:fs");
const { subtle } = require("node:crypto").webcrypto;
const { Crypto } = require("node-webcrypto-p11");

const [library, pinFile] = process.argv.slice(2);
const token = new Crypto({ library, slot: 0, readWrite: true, pin: fs.readFileSync(pinFile, "utf8").trim() });
const data = Buffer.from("A document that somebody signs.");
const ownKey = async (key, algorithm, uses) =>
  subtle.importKey("spki", await token.subtle.exportKey("spki", key), algorithm, false, uses);

const signs = async (algorithm, use) => {
  const keys = await token.subtle.generateKey(algorithm, false, ["sign", "verify"]);
  const signature = await token.subtle.sign(use, keys.privateKey, data);
  assert(await subtle.verify(use, await ownKey(keys.publicKey, algorithm, ["verify"]), signature, data));
  return keys;
};

(async () => {
  const rsa = { modulusLength: 2048, publicExponent: new Uint8Array([1, 0, 1]), hash: "SHA-256" };
  await signs({ name: "RSASSA-PKCS1-v1_5", ...rsa }, { name: "RSASSA-PKCS1-v1_5" });
  await signs({ name: "RSA-PSS", ...rsa }, { name: "RSA-PSS", saltLength: 32 });
  const ecdsa = { name: "ECDSA", namedCurve: "P-384", hash: "SHA-384" };
  const stored = await signs(ecdsa, ecdsa);

  const ecdh = { name: "ECDH", namedCurve: "P-256" };
  const [mine, peer] = [await token.subtle.generateKey(ecdh, false, ["deriveBits"]), await subtle.generateKey(ecdh, true, ["deriveBits"])];
  const peerKey = await token.subtle.importKey("spki", await subtle.exportKey("spki", peer.publicKey), ecdh, true, []);
  const secret = await token.subtle.deriveBits({ name: "ECDH", public: peerKey }, mine.privateKey, 256);
  const own = await subtle.deriveBits({ name: "ECDH", public: await ownKey(mine.publicKey, ecdh, []) }, peer.privateKey, 256);
  assert.deepEqual(Buffer.from(secret), Buffer.from(own));

  // Both halves of a session key pair become token objects, and are deleted.
  const names = [await token.keyStorage.setItem(stored.privateKey), await token.keyStorage.setItem(stored.publicKey)];
  const kept = await token.keyStorage.getItem(names[0]);
  assert(await token.subtle.verify(ecdsa, stored.publicKey, await token.subtle.sign(ecdsa, kept, data), data));
  for (const name of names) await token.keyStorage.removeItem(name);
  for (const name of await token.keyStorage.keys()) assert(!names.includes(name));
  token.close();
  console.log("everything is as it should be");
})();
