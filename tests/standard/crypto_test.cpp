// Digests, signatures, encryption and key agreement: the rules of operations first, then their results.
#include <algorithm>

#include "client.h"

namespace {

constexpr CK_MECHANISM_TYPE unknown = CKM_VENDOR_DEFINED | 1;
const Expected noOperation = CKR_OPERATION_NOT_INITIALIZED;
const char oneAtATime[] = "a session has one operation at a time";

struct Case {
  Operation operation;
  CK_MECHANISM_TYPE mechanism;
  CK_OBJECT_HANDLE key, otherType, otherHalf;
  CK_ULONG length;  // of the result
  std::string data;
};

class OperationTest : public KeysTest {
 protected:
  std::vector<Case> cases() {
    Session& s = *owner_;
    is(s.init(encrypt, CKM_RSA_PKCS, rsaPublic_), CKR_OK);
    is(s.once(encrypt, "secret"), CKR_OK);
    const std::string encrypted = s.out;
    return {{digest, CKM_SHA256, 0, 0, 0, 32, "data"},
            {sign, CKM_SHA256_RSA_PKCS, rsa_, ec_, rsaPublic_, 256, "data"},
            {verify, CKM_SHA256_RSA_PKCS, rsaPublic_, ecPublic_, rsa_, 0, "data"},
            {encrypt, CKM_RSA_PKCS, rsaPublic_, ecPublic_, rsa_, 256, "data"},
            {decrypt, CKM_RSA_PKCS, rsa_, ec_, rsaPublic_, 6, encrypted}};
  }
};

TEST_F(OperationTest, InitChecksMechanismAndKey) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(operationNames[c.operation]);
    Session s;
    s.out = std::string(256, 's');
    if (c.operation != verify) is(s.once(c.operation, c.data), noOperation);
    if (c.operation == verify) is(s.check(c.data, s.out), noOperation);
    is(s.update(c.operation, c.data), noOperation);
    is(s.final(c.operation), noOperation);
    is(s.init(c.operation, unknown, c.key), CKR_MECHANISM_INVALID);
    is(s.init(c.operation, c.operation == digest ? CKM_RSA_PKCS : CKM_SHA256, c.key), CKR_MECHANISM_INVALID);
    if (c.operation == digest) {
      is(f->C_DigestInit(s, nullptr), CKR_ARGUMENTS_BAD);
    } else {
      const CK_C_SignInit inits[] = {nullptr, f->C_SignInit, f->C_VerifyInit, f->C_EncryptInit, f->C_DecryptInit};
      const Expected misfit{CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED};
      const bool signature = c.operation == sign || c.operation == verify;
      is(inits[c.operation](s, nullptr, c.key), CKR_ARGUMENTS_BAD);
      is(s.init(c.operation, c.mechanism, 0), noSuchKey());
      is(s.init(c.operation, c.mechanism, 12345678), noSuchKey());
      is(s.init(c.operation, c.mechanism, c.otherHalf), misfit);
      const Session another;
      is(another.init(c.operation, c.mechanism, c.otherType), signature ? differs(misfit, CKR_OK, unlooked) : misfit);
    }
    EXPECT_FALSE(s.isActive(c.operation)) << "after refusals";
    is(s.init(c.operation, c.mechanism, c.key), CKR_OK);
    is(s.init(c.operation, c.mechanism, c.key), CKR_OPERATION_ACTIVE);
    is(s.init(c.operation, unknown, c.key), {CKR_OPERATION_ACTIVE, CKR_MECHANISM_INVALID});
    EXPECT_TRUE(s.isActive(c.operation)) << "refusals leave the first one";
    EXPECT_FALSE(s.isActive(c.operation)) << "which its end ends";
  }
}

TEST_F(OperationTest, BuffersAndEnds) {
  for (const Case& c : cases()) {
    if (c.operation == verify) continue;
    SCOPED_TRACE(operationNames[c.operation]);
    const bool parts = c.operation < encrypt || !isSoftHsm();
    Session s;
    const auto begin = [&] { is(s.init(c.operation, c.mechanism, c.key), CKR_OK); };
    begin();
    is(s.once(c.operation, c.data, query), CKR_OK);
    EXPECT_GE(s.length, c.length);
    is(s.once(c.operation, c.data, c.length - 1), CKR_BUFFER_TOO_SMALL);
    EXPECT_GE(s.length, c.length);
    is(s.once(c.operation, c.data, 0), CKR_BUFFER_TOO_SMALL);
    is(s.once(c.operation, c.data, c.operation == decrypt && isSoftHsm() ? 256 : c.length), CKR_OK);
    EXPECT_EQ(s.length, c.length);
    const std::string result = s.out;
    is(s.once(c.operation, c.data, query), noOperation);
    begin();
    const CK_C_Sign calls[] = {f->C_Digest, f->C_Sign, nullptr, f->C_Encrypt, f->C_Decrypt};
    is(calls[c.operation](s, bytesOf(c.data), lengthOf(c.data), bytesOf(result), nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(s.isActive(c.operation), isSoftHsm()) << "every other error is an end, though not there";
    if (!parts) continue;  // SoftHSM2 encrypts with RSA in one part only

    begin();
    is(s.update(c.operation, c.data.substr(0, 2)), CKR_OK);
    is(s.update(c.operation, ""), CKR_OK);
    is(s.update(c.operation, c.data.substr(2)), CKR_OK);
    is(s.final(c.operation, query), CKR_OK);
    EXPECT_GE(s.length, c.length);
    is(s.final(c.operation, c.length - 1), CKR_BUFFER_TOO_SMALL);
    is(s.final(c.operation, c.length), CKR_OK);
    if (c.operation != encrypt) {
      EXPECT_EQ(s.out, result) << "in parts as in one";
    }
    is(s.final(c.operation), noOperation);
    is(s.update(c.operation, c.data), noOperation);
    begin();
    is(s.update(c.operation, c.data), CKR_OK);
    const Expected mixed{CKR_OPERATION_ACTIVE, CKR_OPERATION_NOT_INITIALIZED, CKR_FUNCTION_FAILED};
    is(s.once(c.operation, c.data), c.operation == digest ? differs(mixed, CKR_OK, unlooked) : mixed, "after a part");
    const Session next;
    is(next.init(c.operation, c.mechanism, c.key), CKR_OK, "another session is free");
    is(f->C_CloseSession(s), CKR_OK);
    is(s.final(c.operation), CKR_SESSION_HANDLE_INVALID);
  }
}

TEST_F(OperationTest, LengthsOfData) {
  Session& s = *owner_;
  const auto bytes = [](std::size_t count) { return std::string(count, 'd'); };
  const char raw[] = "the device would take these bytes for a digest";
  const Expected refused = cannot({CKR_DATA_LEN_RANGE, CKR_DATA_INVALID}, CKR_OK, raw);
  const struct {
    Operation operation;
    CK_MECHANISM_TYPE mechanism;
    CK_OBJECT_HANDLE key;
    std::size_t length;
    Expected code;
  } rows[] = {
      {digest, CKM_SHA256, 0, 0, CKR_OK},
      {sign, CKM_SHA256_RSA_PKCS, rsa_, 0, CKR_OK},
      {sign, CKM_RSA_PKCS, rsa_, 245, CKR_OK},
      {sign, CKM_RSA_PKCS, rsa_, 246, differs(CKR_DATA_LEN_RANGE, CKR_GENERAL_ERROR, byOpenSsl)},
      {sign, CKM_RSA_PKCS, rsa_, 20, refused},
      {sign, CKM_RSA_PKCS, rsa_, 32, refused},
      {sign, CKM_RSA_PKCS, rsa_, 48, refused},
      {sign, CKM_RSA_PKCS, rsa_, 64, refused},
      {sign, CKM_RSA_PKCS, rsa_, 35, CKR_OK},
      {sign, CKM_ECDSA, ec_, 32, CKR_OK},
      {sign, CKM_ECDSA, ec_, 20, CKR_OK},
      {encrypt, CKM_RSA_PKCS, rsaPublic_, 245, CKR_OK},
      {encrypt, CKM_RSA_PKCS, rsaPublic_, 246, differs(CKR_DATA_LEN_RANGE, CKR_GENERAL_ERROR, byOpenSsl)},
      {decrypt, CKM_RSA_PKCS, rsa_, 255, differs(CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_GENERAL_ERROR, byOpenSsl)},
      {decrypt, CKM_RSA_PKCS, rsa_, 257, differs(CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_GENERAL_ERROR, byOpenSsl)},
      {decrypt, CKM_RSA_PKCS, rsa_, 256, differs(CKR_ENCRYPTED_DATA_INVALID, CKR_GENERAL_ERROR, byOpenSsl)},
  };
  for (const auto& row : rows) {
    const auto number = std::to_string(&row - rows);
    is(s.init(row.operation, row.mechanism, row.key), CKR_OK, number);
    const CK_RV code = s.once(row.operation, bytes(row.length));
    is(code, row.code, number);
    EXPECT_FALSE(s.isActive(row.operation)) << number;
    if (code == CKR_OK && row.mechanism == CKM_RSA_PKCS && row.operation == sign) {
      const std::string signature = s.out;
      is(s.init(verify, CKM_RSA_PKCS, rsaPublic_), CKR_OK);
      is(s.check(bytes(row.length), signature), CKR_OK, number);
    }
  }
}

TEST_F(OperationTest, Verification) {
  Session& s = *owner_;
  is(s.init(sign, CKM_SHA256_RSA_PKCS, rsa_), CKR_OK);
  is(s.once(sign, "data"), CKR_OK);
  const std::string signature = s.out, wrong = signature.substr(0, 255) + static_cast<char>(signature[255] ^ 1);
  const struct {
    std::string data, signature;
    CK_RV code;
  } rows[] = {{"data", signature, CKR_OK},
              {"Data", signature, CKR_SIGNATURE_INVALID},
              {"", signature, CKR_SIGNATURE_INVALID},
              {"data", wrong, CKR_SIGNATURE_INVALID},
              {"data", signature.substr(1), CKR_SIGNATURE_LEN_RANGE},
              {"data", signature + "x", CKR_SIGNATURE_LEN_RANGE},
              {"data", "", CKR_SIGNATURE_LEN_RANGE}};
  for (const auto& row : rows) {
    const auto number = std::to_string(&row - rows);
    is(s.init(verify, CKM_SHA256_RSA_PKCS, rsaPublic_), CKR_OK);
    is(s.check(row.data, row.signature), row.code, number);
    is(s.check(row.data, row.signature), noOperation, "every verification is an end");
    is(s.init(verify, CKM_SHA256_RSA_PKCS, rsaPublic_), CKR_OK);
    is(s.update(verify, row.data.substr(0, 1)), CKR_OK);
    is(s.update(verify, row.data.empty() ? "" : row.data.substr(1)), CKR_OK);
    s.out = row.signature;
    is(s.final(verify), row.code, number);
    is(s.final(verify), noOperation);
  }
  is(f->C_Logout(s), CKR_OK);
  is(s.init(verify, CKM_SHA256_RSA_PKCS, rsaPublic_), CKR_OK, "verification needs no login");
  is(s.check("data", signature), CKR_OK);
}

TEST_F(OperationTest, OperationsSideBySide) {
  Session &s = *owner_, other;
  const std::vector<Case> all = cases();
  const Expected alongside = differs(CKR_OK, CKR_OPERATION_ACTIVE, oneAtATime);
  CK_OBJECT_HANDLE found[8];
  CK_ULONG count = 0;
  is(f->C_FindObjectsInit(s, nullptr, 0), CKR_OK);
  is(s.init(digest, CKM_SHA256), alongside);
  is(f->C_FindObjectsFinal(s), CKR_OK);
  if (isSoftHsm()) return;
  is(f->C_FindObjectsInit(s, nullptr, 0), CKR_OK);
  for (const Case& c : all) {
    if (c.operation != digest) is(s.init(c.operation, c.mechanism, c.key), CKR_OK, operationNames[c.operation]);
  }
  is(other.init(sign, CKM_ECDSA_SHA256, ec_), CKR_OK);
  for (const char* part : {"da", "ta"}) {
    for (const Operation operation : {digest, sign, verify}) is(s.update(operation, part), CKR_OK);
    is(other.update(sign, part), CKR_OK);
  }
  is(s.once(encrypt, "data"), CKR_OK);
  is(s.once(decrypt, all[decrypt].data), CKR_OK);
  EXPECT_EQ(s.out, "secret");
  is(s.final(digest), CKR_OK);
  EXPECT_EQ(s.out, hashed(CKM_SHA256, "data"));
  is(s.final(sign), CKR_OK);
  const std::string modulus = Session().value(rsa_, CKA_MODULUS), exponent = Session().value(rsa_, CKA_PUBLIC_EXPONENT);
  EXPECT_TRUE(rsaVerifies(modulus, exponent, hashed(CKM_SHA256, "data"), s.out));
  is(s.final(verify), CKR_OK, "with the signature of just now");
  is(other.final(sign), CKR_OK);
  EXPECT_TRUE(ecdsaVerifies(p256, s.value(ecPublic_, CKA_EC_POINT), hashed(CKM_SHA256, "data"), other.out));
  is(f->C_FindObjects(s, found, 8, &count), CKR_OK);
  EXPECT_EQ(count, 4U);

  is(s.init(sign, CKM_SHA256_RSA_PKCS, rsa_), CKR_OK);
  is(s.init(digest, CKM_SHA256), CKR_OK);
  is(s.update(digest, "da"), CKR_OK);
  is(f->C_Logout(other), CKR_OK);
  is(s.once(sign, "data"), noOperation, "a logout ends what private keys are used for");
  is(s.update(digest, "ta"), CKR_OK);
  is(s.final(digest), CKR_OK, "and nothing else");
  EXPECT_EQ(s.out, hashed(CKM_SHA256, "data"));
}

TEST_F(KeysTest, Digests) {
  Session& s = *owner_;
  is(f->C_Logout(s), CKR_OK);
  for (const CK_MECHANISM_TYPE type : {CKM_SHA_1, CKM_SHA256, CKM_SHA384, CKM_SHA512}) {
    for (const std::size_t size : {0u, 1u, 1000u, 100000u}) {
      const std::string data(size, 'x');
      is(s.init(digest, type), CKR_OK);
      is(s.once(digest, data), CKR_OK);
      EXPECT_EQ(s.out, hashed(type, data));
      is(s.init(digest, type), CKR_OK);
      for (std::size_t at = 0; at < size; at += 777) is(s.update(digest, data.substr(at, 777)), CKR_OK);
      is(s.final(digest), CKR_OK);
      EXPECT_EQ(s.out, hashed(type, data));
    }
  }
}

TEST_F(KeysTest, Signatures) {
  const char rawOnly[] = "2.6 has the raw mechanism only";
  Session& s = *owner_;
  const std::string modulus = s.value(rsa_, CKA_MODULUS), exponent = s.value(rsa_, CKA_PUBLIC_EXPONENT);
  const std::string point = s.value(ecPublic_, CKA_EC_POINT);
  const struct {
    Mechanism mechanism;
    CK_MECHANISM_TYPE hash;
    int salt;  // of PSS
    bool ec;
    bool raw;  // the digest is the data
  } rows[] = {
      {CKM_SHA1_RSA_PKCS, CKM_SHA_1, -1, false, false},
      {CKM_SHA256_RSA_PKCS, CKM_SHA256, -1, false, false},
      {CKM_SHA384_RSA_PKCS, CKM_SHA384, -1, false, false},
      {CKM_SHA512_RSA_PKCS, CKM_SHA512, -1, false, false},
      {pss(CKM_SHA1_RSA_PKCS_PSS, CKM_SHA_1, CKG_MGF1_SHA1, 20), CKM_SHA_1, 20, false, false},
      {pss(CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA256, 32), CKM_SHA256, 32, false, false},
      {pss(CKM_SHA384_RSA_PKCS_PSS, CKM_SHA384, CKG_MGF1_SHA384, 48), CKM_SHA384, 48, false, false},
      {pss(CKM_SHA512_RSA_PKCS_PSS, CKM_SHA512, CKG_MGF1_SHA512, 64), CKM_SHA512, 64, false, false},
      {pss(CKM_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA256, 32), CKM_SHA256, 32, false, true},
      {CKM_ECDSA, CKM_SHA256, -1, true, true},
      {CKM_ECDSA, CKM_SHA_1, -1, true, true},
      {CKM_ECDSA_SHA1, CKM_SHA_1, -1, true, false},
      {CKM_ECDSA_SHA256, CKM_SHA256, -1, true, false},
      {CKM_ECDSA_SHA384, CKM_SHA384, -1, true, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows));
    const CK_OBJECT_HANDLE key = row.ec ? ec_ : rsa_, publicKey = row.ec ? ecPublic_ : rsaPublic_;
    for (const std::string& text : {std::string(), std::string(5000, 't')}) {
      const std::string hash = hashed(row.hash, text), data = row.raw ? hash : text;
      const auto verifies = [&] {
        return row.ec ? ecdsaVerifies(p256, point, hash, s.out) : rsaVerifies(modulus, exponent, hash, s.out, row.salt);
      };
      if (!is(s.init(sign, row.mechanism, key),
              row.ec && !row.raw ? cannot(CKR_OK, CKR_MECHANISM_INVALID, rawOnly) : CKR_OK) ||
          (isSoftHsm() && row.ec && !row.raw)) {
        break;
      }
      is(s.once(sign, data), CKR_OK);
      EXPECT_TRUE(verifies());
      const std::string signature = s.out;
      is(s.init(verify, row.mechanism, publicKey), CKR_OK);
      is(s.check(data, signature), CKR_OK);
      if (row.raw) continue;
      is(s.init(verify, row.mechanism, publicKey), CKR_OK);
      is(s.update(verify, data), CKR_OK);
      is(s.final(verify), CKR_OK);
      is(s.init(sign, row.mechanism, key), CKR_OK);
      for (std::size_t at = 0; at < data.size(); at += 999) is(s.update(sign, data.substr(at, 999)), CKR_OK);
      is(s.final(sign), CKR_OK);
      EXPECT_TRUE(verifies()) << "in parts";
    }
  }
}

TEST_F(KeysTest, MechanismParameters) {
  const Expected bad{CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD};
  const Expected badPss = differs(CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD, "its code for all parameters");
  const struct {
    Operation operation;
    Mechanism mechanism;
    CK_OBJECT_HANDLE key;
    Expected code;
  } rows[] = {
      {sign, CKM_SHA256_RSA_PKCS_PSS, rsa_, bad},
      {sign, CKM_RSA_PKCS_PSS, rsa_, bad},
      {sign, {CKM_SHA256_RSA_PKCS_PSS, 'x'}, rsa_, bad},
      {sign, pss(CKM_SHA256_RSA_PKCS_PSS, CKM_SHA_1, CKG_MGF1_SHA1, 20), rsa_, badPss},
      {sign, pss(CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA1, 32), rsa_, badPss},
      {sign, pss(CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA256, 20), rsa_,
       cannot(CKR_MECHANISM_PARAM_INVALID, CKR_OK, "the device's salt is as long as the hash")},
      {sign, pss(CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA256, 999), rsa_,
       differs(CKR_MECHANISM_PARAM_INVALID, CKR_MECHANISM_INVALID, "its code for salts")},
      {verify, CKM_SHA256_RSA_PKCS_PSS, rsaPublic_, bad},
      {encrypt, CKM_RSA_PKCS_OAEP, rsaPublic_, bad},
      {encrypt, {CKM_RSA_PKCS_OAEP, 'x'}, rsaPublic_, bad},
      {encrypt, oaep(CKM_SHA256, CKG_MGF1_SHA256), rsaPublic_,
       cannot(CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD, "both have SHA-1 only")},
      {encrypt, oaep(CKM_SHA_1, CKG_MGF1_SHA256), rsaPublic_, badPss},
      {decrypt, oaep(CKM_SHA256, CKG_MGF1_SHA256), rsa_,
       cannot(CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD, "both have SHA-1 only")},
      {sign, {CKM_SHA256_RSA_PKCS, 'x'}, rsa_, differs(CKR_MECHANISM_PARAM_INVALID, CKR_OK, unlooked)},
      {digest, {CKM_SHA256, 'x'}, 0, differs(CKR_MECHANISM_PARAM_INVALID, CKR_OK, unlooked)},
  };
  for (const auto& row : rows) {
    const Session fresh;
    is(fresh.init(row.operation, row.mechanism, row.key), row.code, std::to_string(&row - rows));
  }
}

TEST_F(KeysTest, Encryption) {
  Session& s = *owner_;
  for (const Mechanism& mechanism : {Mechanism(CKM_RSA_PKCS), oaep(CKM_SHA_1, CKG_MGF1_SHA1)}) {
    for (const std::size_t size : {1u, 100u, mechanism.type == CKM_RSA_PKCS ? 245u : 214u}) {
      const std::string data(size, 'p');
      is(s.init(encrypt, mechanism, rsaPublic_), CKR_OK);
      is(s.once(encrypt, data), CKR_OK);
      const std::string encrypted = s.out;
      EXPECT_EQ(encrypted.size(), 256U);
      is(s.init(decrypt, mechanism, rsa_), CKR_OK);
      is(s.once(decrypt, encrypted), CKR_OK);
      EXPECT_EQ(s.out, data);
      std::string wrong = encrypted;
      wrong[200] = static_cast<char>(wrong[200] ^ 1);
      is(s.init(decrypt, mechanism, rsa_), CKR_OK);
      EXPECT_NE(s.once(decrypt, wrong), CKR_OK);
      EXPECT_FALSE(s.isActive(decrypt));
    }
    is(s.init(encrypt, mechanism, rsaPublic_), CKR_OK);
    is(s.once(encrypt, std::string(246, 'p')), differs(CKR_DATA_LEN_RANGE, CKR_GENERAL_ERROR, byOpenSsl));
  }
}

// Z, and what X9.63 makes of it with a hash.
std::string derived(const std::string& z, CK_MECHANISM_TYPE hash, const std::string& shared, std::size_t length) {
  std::string key;
  for (char counter = 1; key.size() < length; ++counter)
    key += hashed(hash, z + std::string(3, '\0') + counter + shared);
  return key.substr(0, length);
}

TEST_F(KeysTest, KeyAgreement) {
  const char nullOnly[] = "2.6 has CKD_NULL only";
  Session& s = *owner_;
  is(s.generate(CKM_EC_KEY_PAIR_GEN, {{CKA_EC_PARAMS, p256}}, {{CKA_TOKEN, false}, {CKA_DERIVE, true}}), CKR_OK);
  const CK_OBJECT_HANDLE mine = s.made;
  const std::string own = s.value(s.madePublic, CKA_EC_POINT).substr(2),
                    peer = s.value(ecPublic_, CKA_EC_POINT).substr(2);
  const Template readable{{CKA_CLASS, CKO_SECRET_KEY},
                          {CKA_KEY_TYPE, CKK_GENERIC_SECRET},
                          {CKA_TOKEN, false},
                          {CKA_SENSITIVE, false},
                          {CKA_EXTRACTABLE, true}};
  const auto ecdh = [](CK_EC_KDF_TYPE kdf, const std::string& point, const std::string& shared) {
    return Mechanism(CKM_ECDH1_DERIVE,
                     CK_ECDH1_DERIVE_PARAMS{kdf, lengthOf(shared), shared.empty() ? nullptr : bytesOf(shared),
                                            lengthOf(point), bytesOf(point)});
  };
  const std::string none, shared = "shared data", octets = std::string("\x04\x41") + peer;
  is(s.derive(mine, ecdh(CKD_NULL, peer, none), readable.with({{CKA_VALUE_LEN, 32}})), CKR_OK);
  const CK_OBJECT_HANDLE secret = s.made;
  const std::string z = s.value(secret, CKA_VALUE);
  EXPECT_EQ(z.size(), 32U);
  is(s.derive(ec_, ecdh(CKD_NULL, own, none), readable.with({{CKA_VALUE_LEN, 32}})), CKR_OK);
  EXPECT_EQ(s.value(s.made, CKA_VALUE), z) << "both sides agree";
  EXPECT_EQ(s.value(s.made, CKA_CLASS), Attribute(CKA_CLASS, CKO_SECRET_KEY).value);
  EXPECT_EQ(s.value(s.made, CKA_VALUE_LEN), Attribute(CKA_CLASS, 32).value);
  is(s.derive(ec_, ecdh(CKD_NULL, own, none), readable.with({{CKA_SENSITIVE, true}, {CKA_VALUE_LEN, 32}})), CKR_OK);
  is(s.get(s.made, CKA_VALUE), CKR_ATTRIBUTE_SENSITIVE);
  is(s.derive(ec_, ecdh(CKD_NULL, own, none), readable.with({{CKA_EXTRACTABLE, false}, {CKA_VALUE_LEN, 32}})), CKR_OK);
  is(s.get(s.made, CKA_VALUE), CKR_ATTRIBUTE_SENSITIVE);

  const auto kdf = [&](Expected code) { return differs(code, CKR_MECHANISM_PARAM_INVALID, nullOnly); };
  const Expected bad{CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD};
  const struct {
    Mechanism mechanism;
    Template secret;
    Expected code;
    std::string value;
  } rows[] = {
      {ecdh(CKD_NULL, peer, none), readable.with({{CKA_VALUE_LEN, 16}}), CKR_OK,
       isSoftHsm() ? z.substr(16) : z.substr(0, 16)},
      {ecdh(CKD_NULL, peer, none), readable, CKR_OK, z},
      {ecdh(CKD_NULL, octets, none), readable, CKR_OK, z},
      {ecdh(CKD_NULL, peer, none), readable.with({{CKA_KEY_TYPE, CKK_AES}, {CKA_VALUE_LEN, 32}}), CKR_OK, z},
      {ecdh(CKD_NULL, peer, none), readable.with({{CKA_VALUE_LEN, 33}}),
       differs({CKR_KEY_SIZE_RANGE, CKR_ATTRIBUTE_VALUE_INVALID, CKR_TEMPLATE_INCONSISTENT}, CKR_FUNCTION_FAILED,
               byOpenSsl),
       ""},
      {ecdh(CKD_NULL, peer, shared), readable, bad, ""},
      {ecdh(CKD_NULL, "no point", none), readable, differs(bad, CKR_GENERAL_ERROR, byOpenSsl), ""},
      {ecdh(CKD_NULL, none, none), readable, bad, ""},
      {ecdh(99, peer, none), readable, bad, ""},
      {CKM_ECDH1_DERIVE, readable, bad, ""},
      {{CKM_ECDH1_DERIVE, 'x'}, readable, bad, ""},
      {CKM_SHA256, readable, CKR_MECHANISM_INVALID, ""},
      {ecdh(CKD_NULL, peer, none),
       readable.with({{CKA_CLASS, CKO_PUBLIC_KEY}}),
       {CKR_TEMPLATE_INCONSISTENT, CKR_ATTRIBUTE_VALUE_INVALID},
       ""},
      {ecdh(CKD_SHA1_KDF, peer, none), readable.with({{CKA_VALUE_LEN, 20}}), kdf(CKR_OK),
       derived(z, CKM_SHA_1, "", 20)},
      {ecdh(CKD_SHA1_KDF, peer, shared), readable.with({{CKA_VALUE_LEN, 50}}), kdf(CKR_OK),
       derived(z, CKM_SHA_1, shared, 50)},
      {ecdh(CKD_SHA256_KDF, peer, shared), readable.with({{CKA_VALUE_LEN, 100}}), kdf(CKR_OK),
       derived(z, CKM_SHA256, shared, 100)},
      {ecdh(CKD_SHA256_KDF, peer, none), readable.with({{CKA_KEY_TYPE, CKK_AES}, {CKA_VALUE_LEN, 16}}), kdf(CKR_OK),
       derived(z, CKM_SHA256, "", 16)},
  };
  for (const auto& row : rows) {
    const auto number = std::to_string(&row - rows);
    const CK_RV code = s.derive(mine, row.mechanism, row.secret);
    if (is(code, row.code, number) && code == CKR_OK) {
      EXPECT_EQ(s.value(s.made, CKA_VALUE), row.value) << number;
    }
  }
  is(s.derive(rsa_, ecdh(CKD_NULL, peer, none), readable), {CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED});
  is(s.derive(12345678, ecdh(CKD_NULL, peer, none), readable), {CKR_KEY_HANDLE_INVALID, CKR_OBJECT_HANDLE_INVALID});
  is(s.derive(secret, ecdh(CKD_NULL, peer, none), readable),
     {CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED});
  is(s.destroy(secret), CKR_OK);
  is(s.get(secret, CKA_VALUE), CKR_OBJECT_HANDLE_INVALID);
}

}  // namespace
