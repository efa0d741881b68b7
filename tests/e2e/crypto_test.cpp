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
  const char* name;
  CK_MECHANISM_TYPE type;
  bool ec;
  bool pss;
  bool raw;          // signs a digest, not the data
  const char* hash;  // the digest, in openssl's words
};

const Mechanism mechanisms[] = {
    {"RSA_PKCS", CKM_RSA_PKCS, false, false, true, "sha256"},
    {"SHA1_RSA_PKCS", CKM_SHA1_RSA_PKCS, false, false, false, "sha1"},
    {"SHA256_RSA_PKCS", CKM_SHA256_RSA_PKCS, false, false, false, "sha256"},
    {"SHA384_RSA_PKCS", CKM_SHA384_RSA_PKCS, false, false, false, "sha384"},
    {"SHA512_RSA_PKCS", CKM_SHA512_RSA_PKCS, false, false, false, "sha512"},
    {"RSA_PKCS_PSS", CKM_RSA_PKCS_PSS, false, true, true, "sha512"},
    {"SHA1_RSA_PKCS_PSS", CKM_SHA1_RSA_PKCS_PSS, false, true, false, "sha1"},
    {"SHA256_RSA_PKCS_PSS", CKM_SHA256_RSA_PKCS_PSS, false, true, false, "sha256"},
    {"SHA384_RSA_PKCS_PSS", CKM_SHA384_RSA_PKCS_PSS, false, true, false, "sha384"},
    {"SHA512_RSA_PKCS_PSS", CKM_SHA512_RSA_PKCS_PSS, false, true, false, "sha512"},
    {"ECDSA", CKM_ECDSA, true, false, true, "sha512"},
    {"ECDSA_SHA1", CKM_ECDSA_SHA1, true, false, false, "sha1"},
    {"ECDSA_SHA256", CKM_ECDSA_SHA256, true, false, false, "sha256"},
    {"ECDSA_SHA384", CKM_ECDSA_SHA384, true, false, false, "sha384"},
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
  SCOPED_TRACE(std::string(mechanism.name) + " with " + key);
  const Bytes data = readFile(mechanism.raw ? std::string("data.") + mechanism.hash : "data");
  const CK_OBJECT_HANDLE privateKey = token->find(CKO_PRIVATE_KEY, key);
  const CK_OBJECT_HANDLE publicKey = token->find(CKO_PUBLIC_KEY, key);

  const Bytes whole = token->sign(mechanism.type, privateKey, data);
  const Bytes parts = token->signInParts(mechanism.type, privateKey, data);
  const std::string name = std::string(mechanism.name) + "." + key;
  for (const auto& [signature, path] : {std::pair(whole, name + ".whole"), std::pair(parts, name + ".parts")}) {
    expectOpensslAccepts(mechanism, key, file(mechanism.ec ? ecdsaSignatureAsDer(signature) : signature, path));
  }
  const bool deterministic = !mechanism.ec && !mechanism.pss;
  EXPECT_EQ(whole == parts, deterministic);

  EXPECT_EQ(token->verify(mechanism.type, publicKey, data, whole), CKR_OK);
  EXPECT_EQ(token->verify(mechanism.type, publicKey, altered(data), whole), CKR_SIGNATURE_INVALID);
  EXPECT_EQ(token->verify(mechanism.type, publicKey, data, altered(whole)), CKR_SIGNATURE_INVALID);
  // Verification in parts never tells the device that a signature is a PSS one.
  EXPECT_EQ(token->verifyInParts(mechanism.type, publicKey, data, whole),
            mechanism.pss ? CKR_SIGNATURE_INVALID : CKR_OK);
  EXPECT_EQ(token->verifyInParts(mechanism.type, publicKey, altered(data), whole), CKR_SIGNATURE_INVALID);
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

// The integers of a PKCS#1 private key in their order: version, n, e, d, p, q and so on.
std::vector<Bytes> integersOf(const Bytes& der) {
  std::vector<Bytes> integers;
  std::size_t at = 4;  // behind the sequence's tag and its length of two bytes
  while (at < der.size()) {
    std::size_t length = der[++at];
    if (length == 0x81) length = der[++at];
    if (length == 0x82) length = static_cast<std::size_t>(der[at + 1] << 8 | der[at + 2]), at += 2;
    const auto begin = der.begin() + static_cast<std::ptrdiff_t>(++at);
    integers.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(length));
    if (integers.back().front() == 0) integers.back().erase(integers.back().begin());
    at += length;
  }
  return integers;
}

CK_OBJECT_HANDLE Crypto::importedKey() {
  const CK_OBJECT_HANDLE existing = token->find(CKO_PRIVATE_KEY, "imported");
  if (existing != CK_INVALID_HANDLE) return existing;
  const std::vector<Bytes> integers = integersOf(readFile("imported.der"));
  CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
  CK_KEY_TYPE keyType = CKK_RSA;
  std::string label = "imported";
  std::vector<CK_ATTRIBUTE> attributes = {{CKA_CLASS, &objectClass, sizeof(objectClass)},
                                          {CKA_KEY_TYPE, &keyType, sizeof(keyType)},
                                          {CKA_LABEL, label.data(), static_cast<CK_ULONG>(label.size())}};
  const std::pair<CK_ATTRIBUTE_TYPE, std::size_t> components[] = {
      {CKA_MODULUS, 1}, {CKA_PRIVATE_EXPONENT, 3}, {CKA_PRIME_1, 4}};
  for (const auto& [type, index] : components) {
    attributes.push_back(
        {type, const_cast<CK_BYTE*>(integers[index].data()), static_cast<CK_ULONG>(integers[index].size())});
  }
  CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
  check(token->module->C_CreateObject(token->handle, attributes.data(), static_cast<CK_ULONG>(attributes.size()), &key),
        "C_CreateObject");
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
