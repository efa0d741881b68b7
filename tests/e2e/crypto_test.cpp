// Everything that the token computes. Results go to files, and openssl.txt says how openssl is to check them.
#include <gtest/gtest.h>

#include <fstream>

#include "mechanism_rows.h"
#include "token_session.h"

namespace {

const std::pair<const char*, Bytes> keys[] = {
    {"rsa", {}},
    {"p256", {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}},
    {"p384", {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22}},
    {"p521", {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23}},
};

bool isEc(const MechanismRow& mechanism) { return mechanism.largest < 1024; }

// The hash in openssl's words. The caller hashes for the mechanisms without one.
std::string hashName(const MechanismRow& mechanism) {
  const int code = mechanism.hash != 0 ? mechanism.hash : mechanism.type == CKM_RSA_PKCS ? 3 : 5;
  return std::array{"sha1", "sha256", "sha384", "sha512"}.at(static_cast<std::size_t>(code - 2));
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
    for (const auto& [name, curve] : keys) {
      token->generate(name, curve);
      const auto read = [&, object = token->find(CKO_PUBLIC_KEY, name)](CK_ATTRIBUTE_TYPE type) {
        return token->attribute(object, type);
      };
      std::ofstream(std::string(name) + ".pem")
          << (curve.empty() ? rsaPublicKeyPem(read(CKA_MODULUS), read(CKA_PUBLIC_EXPONENT))
                            : ecPublicKeyPem(read(CKA_EC_PARAMS), read(CKA_EC_POINT)));
    }
    const Bytes modulus = readFile("imported.n"), exponent = readFile("imported.d"), prime = readFile("imported.p");
    const Attributes attributes = {{CKA_LABEL, textView("imported")},
                                   {CKA_MODULUS, modulus},
                                   {CKA_PRIVATE_EXPONENT, exponent},
                                   {CKA_PRIME_1, prime}};
    check(token->create(CKO_PRIVATE_KEY, attributes, &imported), "C_CreateObject");
  }
  static void TearDownTestSuite() {
    openssl.close();
    token.reset();
  }

  static void expectOpensslAccepts(const MechanismRow& mechanism, const char* key, const Bytes& signature) {
    const std::string file = "signature." + std::to_string(++signatures);
    writeFile(file, isEc(mechanism) ? ecdsaSignatureAsDer(signature) : signature);
    openssl << "dgst -" << hashName(mechanism)
            << (mechanism.pss != 0 ? " -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest" : "") << " -verify "
            << key << ".pem -signature " << file << " data\n";
  }
  static void signAndVerify(const MechanismRow& mechanism, const char* key);

  static inline std::unique_ptr<TokenSession> token;
  static inline CK_OBJECT_HANDLE imported = CK_INVALID_HANDLE;
  static inline std::ofstream openssl;
  static inline int signatures = 0;
};

void Crypto::signAndVerify(const MechanismRow& mechanism, const char* key) {
  SCOPED_TRACE(std::to_string(mechanism.type) + " with " + key);
  const Bytes data = readFile(mechanism.hash == 0 ? "data." + hashName(mechanism) : "data");
  const CK_OBJECT_HANDLE privateKey = token->find(CKO_PRIVATE_KEY, key);
  const CK_OBJECT_HANDLE publicKey = token->find(CKO_PUBLIC_KEY, key);
  const Bytes whole = token->sign(mechanism.type, privateKey, data);
  const Bytes parts = token->sign(mechanism.type, privateKey, data, true);
  expectOpensslAccepts(mechanism, key, whole);
  expectOpensslAccepts(mechanism, key, parts);
  const bool deterministic = !isEc(mechanism) && mechanism.pss == 0;
  EXPECT_EQ(whole == parts, deterministic);
  for (const bool inParts : {false, true}) {
    const auto verify = [&](const Bytes& signedData, const Bytes& signature) {
      return token->verify(mechanism.type, publicKey, signedData, signature, inParts);
    };
    // Verification in parts never asks the device for PSS.
    EXPECT_EQ(verify(data, whole), inParts && mechanism.pss != 0 ? CKR_SIGNATURE_INVALID : CKR_OK);
    EXPECT_EQ(verify(altered(data), whole), CKR_SIGNATURE_INVALID);
    EXPECT_EQ(verify(data, altered(whole)), CKR_SIGNATURE_INVALID);
  }
}

TEST_F(Crypto, SignsWithEveryMechanismAndKey) {
  for (const MechanismRow& mechanism : mechanismRows) {
    for (const auto& [name, curve] : keys) {
      if ((mechanism.flags & CKF_SIGN) != 0 && isEc(mechanism) != curve.empty()) signAndVerify(mechanism, name);
    }
  }
}

TEST_F(Crypto, UsesAnImportedKeyForEverything) {
  EXPECT_EQ(imported, token->find(CKO_PRIVATE_KEY, "imported"));
  const MechanismRow& sha256 = mechanismRows[5];
  ASSERT_EQ(sha256.type, CKM_SHA256_RSA_PKCS);
  expectOpensslAccepts(sha256, "imported", token->sign(sha256.type, imported, readFile("data")));
  const Bytes data = readFile("short");
  const CK_OBJECT_HANDLE publicKey = token->find(CKO_PUBLIC_KEY, "imported");
  const CryptokiModule& module = token->module;
  for (const auto& [type, name] : {std::pair(CKM_RSA_PKCS, "pkcs1"), std::pair(CKM_RSA_PKCS_OAEP, "oaep")}) {
    const auto decrypt = [&, type = type](const Bytes& ciphertext) {
      return token->compute(module->C_DecryptInit, module->C_Decrypt, type, imported, ciphertext);
    };
    EXPECT_EQ(decrypt(readFile(std::string("openssl.") + name)), data) << name;
    const Bytes ciphertext = token->compute(module->C_EncryptInit, module->C_Encrypt, type, publicKey, data);
    EXPECT_EQ(decrypt(ciphertext), data) << name;
    writeFile(std::string("module.") + name, ciphertext);
  }
}

TEST_F(Crypto, DerivesSharedSecretsOnEveryCurve) {
  for (const std::string key : {"p256", "p384", "p521"}) {
    const Bytes peer = readFile("peer." + key + ".point");
    for (const auto& [kdf, name] : {std::pair(CKD_NULL, ""), {CKD_SHA1_KDF, ".sha1"}, {CKD_SHA256_KDF, ".sha256"}}) {
      Bytes secret;
      check(token->derive(kdf, token->find(CKO_PRIVATE_KEY, key), peer, &secret), "C_DeriveKey");
      writeFile("secret." + key + name, secret);
    }
  }
}

}  // namespace
