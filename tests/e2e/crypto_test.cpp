// Everything that the token computes. Results go to files, and openssl.txt says how openssl is to check them.
#include <gtest/gtest.h>

#include <fstream>

#include "token_session.h"

namespace {

const Bytes noCurve;

struct Key {
  const char* name;
  Bytes curve;
};

const Key keys[] = {
    {"rsa", noCurve},
    {"p256", {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}},
    {"p384", {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22}},
    {"p521", {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23}},
};

struct Mechanism {
  std::string name;
  CK_MECHANISM_TYPE type;
  const char* hash;  // the digest, in openssl's words
  bool raw = false;  // signs a digest, not the data
  bool ec = name.starts_with("ECDSA");
  bool pss = name.ends_with("PSS");
};

const Mechanism mechanisms[] = {
    {"RSA_PKCS", CKM_RSA_PKCS, "sha256", true},
    {"SHA1_RSA_PKCS", CKM_SHA1_RSA_PKCS, "sha1"},
    {"SHA256_RSA_PKCS", CKM_SHA256_RSA_PKCS, "sha256"},
    {"SHA384_RSA_PKCS", CKM_SHA384_RSA_PKCS, "sha384"},
    {"SHA512_RSA_PKCS", CKM_SHA512_RSA_PKCS, "sha512"},
    {"RSA_PKCS_PSS", CKM_RSA_PKCS_PSS, "sha512", true},
    {"SHA1_RSA_PKCS_PSS", CKM_SHA1_RSA_PKCS_PSS, "sha1"},
    {"SHA256_RSA_PKCS_PSS", CKM_SHA256_RSA_PKCS_PSS, "sha256"},
    {"SHA384_RSA_PKCS_PSS", CKM_SHA384_RSA_PKCS_PSS, "sha384"},
    {"SHA512_RSA_PKCS_PSS", CKM_SHA512_RSA_PKCS_PSS, "sha512"},
    {"ECDSA", CKM_ECDSA, "sha512", true},
    {"ECDSA_SHA1", CKM_ECDSA_SHA1, "sha1"},
    {"ECDSA_SHA256", CKM_ECDSA_SHA256, "sha256"},
    {"ECDSA_SHA384", CKM_ECDSA_SHA384, "sha384"},
};

std::string file(const Bytes& contents, const std::string& name) {
  writeFile(name, contents);
  return name;
}

// A bit that counts: ECDSA ignores what a digest has beyond the length of the curve's order.
Bytes altered(Bytes bytes) {
  bytes[20] ^= 1;
  return bytes;
}

class Crypto : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    token = std::make_unique<TokenSession>();
    check(token->login(), "C_Login");
    openssl.open("openssl.txt");
    for (const Key& key : keys) {
      token->generate(key.name, key.curve);
      const CK_OBJECT_HANDLE object = token->find(CKO_PUBLIC_KEY, key.name);
      const auto read = [&](CK_ATTRIBUTE_TYPE type) { return token->attribute(object, type); };
      std::ofstream(std::string(key.name) + ".pem")
          << (key.curve.empty() ? rsaPublicKeyPem(read(CKA_MODULUS), read(CKA_PUBLIC_EXPONENT))
                                : ecPublicKeyPem(read(CKA_EC_PARAMS), read(CKA_EC_POINT)));
    }
  }

  static void TearDownTestSuite() {
    openssl.close();
    token.reset();
  }

  static void expectOpensslAccepts(const Mechanism& mechanism, const char* key, const std::string& signatureFile) {
    openssl << "dgst -" << mechanism.hash
            << (mechanism.pss ? " -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest" : "") << " -verify "
            << key << ".pem -signature " << signatureFile << " data\n";
  }

  static void signAndVerify(const Mechanism& mechanism, const char* key);
  static CK_OBJECT_HANDLE importedKey();
  static Bytes derive(const char* key, CK_EC_KDF_TYPE kdf);

  static inline std::unique_ptr<TokenSession> token;
  static inline std::ofstream openssl;
};

void Crypto::signAndVerify(const Mechanism& mechanism, const char* key) {
  SCOPED_TRACE(mechanism.name + " with " + key);
  const Bytes data = readFile(mechanism.raw ? std::string("data.") + mechanism.hash : "data");
  const CK_OBJECT_HANDLE privateKey = token->find(CKO_PRIVATE_KEY, key);
  const CK_OBJECT_HANDLE publicKey = token->find(CKO_PUBLIC_KEY, key);

  const Bytes whole = token->sign(mechanism.type, privateKey, data);
  const Bytes parts = token->signInParts(mechanism.type, privateKey, data);
  const std::string name = mechanism.name + "." + key;
  for (const auto& [signature, path] : {std::pair(whole, name + ".whole"), std::pair(parts, name + ".parts")}) {
    expectOpensslAccepts(mechanism, key, file(mechanism.ec ? ecdsaSignatureAsDer(signature) : signature, path));
  }
  const bool deterministic = !mechanism.ec && !mechanism.pss;
  EXPECT_EQ(whole == parts, deterministic);

  EXPECT_EQ(token->verify(mechanism.type, publicKey, data, whole), CKR_OK);
  EXPECT_EQ(token->verify(mechanism.type, publicKey, altered(data), whole), CKR_SIGNATURE_INVALID);
  EXPECT_EQ(token->verify(mechanism.type, publicKey, data, altered(whole)), CKR_SIGNATURE_INVALID);
}

TEST_F(Crypto, SignsWithEveryMechanismAndKey) {
  for (const Mechanism& mechanism : mechanisms) {
    for (const Key& key : keys) {
      if (mechanism.ec != key.curve.empty()) signAndVerify(mechanism, key.name);
    }
  }
}

TEST_F(Crypto, PadsAnEncodedDigestAsItIs) {
  Bytes digestInfo = {0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                      0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
  const Bytes digest = readFile("data.sha256");
  digestInfo.insert(digestInfo.end(), digest.begin(), digest.end());
  const CK_OBJECT_HANDLE key = token->find(CKO_PRIVATE_KEY, "rsa");
  EXPECT_EQ(token->sign(CKM_RSA_PKCS, key, digestInfo), token->sign(CKM_SHA256_RSA_PKCS, key, readFile("data")));
}

CK_OBJECT_HANDLE Crypto::importedKey() {
  const CK_OBJECT_HANDLE existing = token->find(CKO_PRIVATE_KEY, "imported");
  if (existing != CK_INVALID_HANDLE) return existing;
  CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
  CK_KEY_TYPE keyType = CKK_RSA;
  char label[] = "imported";
  Bytes n = readFile("imported.n");
  Bytes d = readFile("imported.d");
  Bytes p = readFile("imported.p");
  CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)},
                               {CKA_KEY_TYPE, &keyType, sizeof(keyType)},
                               {CKA_LABEL, label, sizeof(label) - 1},
                               {CKA_MODULUS, n.data(), static_cast<CK_ULONG>(n.size())},
                               {CKA_PRIVATE_EXPONENT, d.data(), static_cast<CK_ULONG>(d.size())},
                               {CKA_PRIME_1, p.data(), static_cast<CK_ULONG>(p.size())}};
  CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
  check(token->module->C_CreateObject(token->handle, attributes, 6, &key), "C_CreateObject");
  return key;
}

TEST_F(Crypto, SignsWithAnImportedKey) {
  const CK_OBJECT_HANDLE key = importedKey();
  EXPECT_EQ(key, token->find(CKO_PRIVATE_KEY, "imported"));
  const Bytes signature = token->sign(CKM_SHA256_RSA_PKCS, key, readFile("data"));
  expectOpensslAccepts(mechanisms[2], "imported", file(signature, "imported.signature"));
}

TEST_F(Crypto, EncryptsAndDecryptsWithBothPaddings) {
  const std::pair<CK_MECHANISM_TYPE, std::string> paddings[] = {{CKM_RSA_PKCS, "pkcs1"}, {CKM_RSA_PKCS_OAEP, "oaep"}};
  const Bytes data = readFile("short");
  const CK_OBJECT_HANDLE privateKey = importedKey();
  const CK_OBJECT_HANDLE publicKey = token->find(CKO_PUBLIC_KEY, "imported");
  const CryptokiModule& module = token->module;
  for (const auto& [mechanism, name] : paddings) {
    const auto decrypt = [&, mechanism = mechanism](const Bytes& ciphertext) {
      return token->compute(module->C_DecryptInit, module->C_Decrypt, mechanism, privateKey, ciphertext);
    };
    EXPECT_EQ(decrypt(readFile("openssl." + name)), data) << name;
    const Bytes ciphertext = token->compute(module->C_EncryptInit, module->C_Encrypt, mechanism, publicKey, data);
    EXPECT_EQ(decrypt(ciphertext), data) << name;
    writeFile("module." + name, ciphertext);
  }
}

Bytes Crypto::derive(const char* key, CK_EC_KDF_TYPE kdf) {
  Bytes peer = readFile(std::string("peer.") + key + ".point");
  CK_ECDH1_DERIVE_PARAMS parameters = {kdf, 0, nullptr, static_cast<CK_ULONG>(peer.size()), peer.data()};
  CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof(parameters)};
  CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
  check(token->module->C_DeriveKey(token->handle, &mechanism, token->find(CKO_PRIVATE_KEY, key), nullptr, 0, &secret),
        "C_DeriveKey");
  return token->attribute(secret, CKA_VALUE);
}

TEST_F(Crypto, DerivesSharedSecretsOnEveryCurve) {
  for (const char* key : {"p256", "p384", "p521"}) {
    const std::string name = std::string("secret.") + key;
    writeFile(name, derive(key, CKD_NULL));
    writeFile(name + ".sha1", derive(key, CKD_SHA1_KDF));
    writeFile(name + ".sha256", derive(key, CKD_SHA256_KDF));
  }
}

}  // namespace
