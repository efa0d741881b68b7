// Digests, signatures, encryption and key agreement: the rules of operations first, then their results.
#include <algorithm>

#include "client.h"

namespace {

constexpr CK_MECHANISM_TYPE unknown = CKM_VENDOR_DEFINED | 1;
const Expected noOperation = CKR_OPERATION_NOT_INITIALIZED;

struct Case {
  Operation operation;
  CK_MECHANISM_TYPE mechanism;
  CK_OBJECT_HANDLE key, otherType, otherHalf;
  std::string data;
};

class OperationTest : public KeysTest {
 protected:
  std::vector<Case> cases() {
    Session& s = *owner_;
    is(s.run(encrypt, CKM_RSA_PKCS, rsaPublic_, "secret"), CKR_OK);
    const std::string encrypted = s.out;
    return {{digest, CKM_SHA256, 0, 0, 0, "data"},
            {sign, CKM_SHA256_RSA_PKCS, rsa_, ec_, rsaPublic_, "data"},
            {verify, CKM_SHA256_RSA_PKCS, rsaPublic_, ecPublic_, rsa_, "data"},
            {encrypt, CKM_RSA_PKCS, rsaPublic_, ecPublic_, rsa_, "data"},
            {decrypt, CKM_RSA_PKCS, rsa_, ec_, rsaPublic_, encrypted}};
  }
};

TEST_F(OperationTest, InitChecksMechanismAndKey) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.operation);
    Session s;
    is(s.init(c.operation, unknown, c.key), CKR_MECHANISM_INVALID);
    is(s.init(c.operation, c.operation == digest ? CKM_RSA_PKCS : CKM_SHA256, c.key), CKR_MECHANISM_INVALID);
    if (c.operation == digest) {
      is(f->C_DigestInit(s, nullptr), CKR_ARGUMENTS_BAD);
    } else {
      const Expected misfit{CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED};
      const bool signature = c.operation == sign || c.operation == verify;
      is(functionsOf(c.operation).init(s, nullptr, c.key), CKR_ARGUMENTS_BAD);
      each(noSuchKey(), {0u, 12345678u}, [&](CK_OBJECT_HANDLE key) { return s.init(c.operation, c.mechanism, key); });
      is(s.init(c.operation, c.mechanism, c.otherHalf), misfit);
      is(Session().init(c.operation, c.mechanism, c.otherType), signature ? differs(misfit, CKR_OK, unlooked) : misfit);
    }
    is(s.update(c.operation, c.data), noOperation, "after refusals");
    is(s.init(c.operation, c.mechanism, c.key), CKR_OK);
    is(s.init(c.operation, c.mechanism, c.key), CKR_OPERATION_ACTIVE);
    EXPECT_TRUE(s.isActive(c.operation)) << "refusals leave the first one";
    EXPECT_FALSE(s.isActive(c.operation)) << "which its end ends";
  }
}

TEST_F(OperationTest, LengthsOfData) {
  Session& s = *owner_;
  const auto bytes = [](std::size_t count) { return std::string(count, 'd'); };
  const char raw[] = "the device would take these bytes for a digest";
  const Expected refused = differs({CKR_DATA_LEN_RANGE, CKR_DATA_INVALID}, CKR_OK, raw);
  const auto rows = [&](Operation operation, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Expected& expected,
                        std::initializer_list<std::size_t> lengths) {
    for (const std::size_t length : lengths) {
      is(s.init(operation, type, key), CKR_OK);
      const CK_RV code = s.once(operation, bytes(length));
      is(code, expected, std::to_string(operation) + ", length " + std::to_string(length));
      EXPECT_FALSE(s.isActive(operation)) << length;
      if (code != CKR_OK || type != CKM_RSA_PKCS || operation != sign) continue;
      is(s.run(verify, type, rsaPublic_, bytes(length)), CKR_OK, std::to_string(length));
    }
  };
  rows(digest, CKM_SHA256, 0, CKR_OK, {0, 1});
  rows(sign, CKM_SHA256_RSA_PKCS, rsa_, CKR_OK, {0, 1});
  rows(sign, CKM_RSA_PKCS, rsa_, CKR_OK, {1, 19, 35, 51, 83, 245});
  rows(sign, CKM_RSA_PKCS, rsa_, refused, {20, 32, 48, 64});
  rows(sign, CKM_RSA_PKCS, rsa_, differs(CKR_DATA_LEN_RANGE, CKR_GENERAL_ERROR, byOpenSsl), {246, 5000});
  rows(sign, CKM_ECDSA, ec_, CKR_OK, {1, 20, 32});
  rows(decrypt, CKM_RSA_PKCS, rsa_, differs(CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_GENERAL_ERROR, byOpenSsl), {0, 255, 257});
  rows(decrypt, CKM_RSA_PKCS, rsa_, differs(CKR_ENCRYPTED_DATA_INVALID, CKR_GENERAL_ERROR, byOpenSsl), {256});
}

TEST_F(OperationTest, Verification) {
  Session& s = *owner_;
  is(s.run(sign, CKM_SHA256_RSA_PKCS, rsa_, "data"), CKR_OK);
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
    for (const std::size_t piece : {0u, 1u}) {
      s.out = row.signature;
      is(s.run(verify, CKM_SHA256_RSA_PKCS, rsaPublic_, row.data, piece), row.code, std::to_string(&row - rows));
      is(piece == 0 ? s.check(row.data, row.signature) : s.final(verify), noOperation, "every verification is an end");
    }
  }
  is(f->C_Logout(s), CKR_OK);
  s.out = signature;
  is(s.run(verify, CKM_SHA256_RSA_PKCS, rsaPublic_, "data"), CKR_OK, "verification needs no login");
  is(s.login(CKU_SO, Session::pinOf(CKU_SO)), CKR_OK, "after keys were used");
}

TEST_F(OperationTest, OperationsSideBySide) {
  Session& s = *owner_;
  const std::vector<Case> all = cases();
  CK_OBJECT_HANDLE found[8];
  CK_ULONG count = 0;
  is(f->C_FindObjectsInit(s, nullptr, 0), CKR_OK);
  is(s.init(digest, CKM_SHA256), differs(CKR_OK, CKR_OPERATION_ACTIVE, "a session has one operation at a time"));
  if (isSoftHsm()) return;
  for (const Case& c : all)
    if (c.operation != digest) is(s.init(c.operation, c.mechanism, c.key), CKR_OK);
  for (const char* part : {"da", "ta"})
    for (const Operation operation : {digest, sign, verify}) is(s.update(operation, part), CKR_OK);
  is(s.once(encrypt, "data"), CKR_OK);
  is(s.once(decrypt, all[decrypt].data), CKR_OK);
  EXPECT_EQ(s.out, "secret");
  is(s.final(digest), CKR_OK);
  const std::string hash = s.out;
  EXPECT_EQ(hash, hashed(CKM_SHA256, "data"));
  is(s.final(sign), CKR_OK);
  EXPECT_TRUE(verifies(Session().value(rsa_, CKA_MODULUS), hash, s.out));
  is(s.final(verify), CKR_OK, "with the signature of just now");
  is(f->C_FindObjects(s, found, 8, &count), CKR_OK);
  EXPECT_EQ(count, 4U);
}

// Every hash, and every signature mechanism with it, of empty and of long data, in one part and in several.
TEST_F(KeysTest, Signatures) {
  Session& s = *owner_;
  const struct {
    CK_MECHANISM_TYPE hash, rsa, pss, ec;
    CK_RSA_PKCS_MGF_TYPE mgf;
    CK_ULONG salt;
  } rows[] = {{CKM_SHA_1, CKM_SHA1_RSA_PKCS, CKM_SHA1_RSA_PKCS_PSS, CKM_ECDSA_SHA1, CKG_MGF1_SHA1, 20},
              {CKM_SHA256, CKM_SHA256_RSA_PKCS, CKM_SHA256_RSA_PKCS_PSS, CKM_ECDSA_SHA256, CKG_MGF1_SHA256, 32},
              {CKM_SHA384, CKM_SHA384_RSA_PKCS, CKM_SHA384_RSA_PKCS_PSS, CKM_ECDSA_SHA384, CKG_MGF1_SHA384, 48},
              {CKM_SHA512, CKM_SHA512_RSA_PKCS, CKM_SHA512_RSA_PKCS_PSS, 0, CKG_MGF1_SHA512, 64}};
  const auto signs = [&](const Mechanism& mechanism, bool ec, bool raw, CK_MECHANISM_TYPE hashType) {
    SCOPED_TRACE(mechanism.type);
    const std::string key = s.value(ec ? ecPublic_ : rsa_, ec ? CKA_EC_POINT : CKA_MODULUS);
    for (const std::string& text : {std::string(), std::string(5000, 't')}) {
      const std::string hash = hashed(hashType, text), data = raw ? hash : text;
      for (const std::size_t piece : {0u, 999u}) {
        if (raw && piece != 0) continue;
        is(s.run(sign, mechanism, ec ? ec_ : rsa_, data, piece), CKR_OK);
        EXPECT_TRUE(verifies(key, hash, s.out, !mechanism.parameter.empty())) << piece;
        is(s.run(verify, mechanism, ec ? ecPublic_ : rsaPublic_, data, piece), CKR_OK);
      }
    }
  };
  for (const auto& row : rows) {
    for (const std::string& text : {std::string(), std::string(5000, 't')}) {
      for (const std::size_t piece : {0u, 999u}) {
        is(s.run(digest, row.hash, 0, text, piece), CKR_OK);
        EXPECT_EQ(s.out, hashed(row.hash, text));
      }
    }
    signs(row.rsa, false, false, row.hash);
    signs(pss(row.pss, row.hash, row.mgf, row.salt), false, false, row.hash);
    signs(pss(CKM_RSA_PKCS_PSS, row.hash, row.mgf, row.salt), false, true, row.hash);
    signs(CKM_ECDSA, true, true, row.hash);
    if (row.ec != 0 && !isSoftHsm()) signs(row.ec, true, false, row.hash);  // 2.6 has the raw mechanism only
  }
}

TEST_F(KeysTest, MechanismParameters) {
  const Expected bad{CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD};
  const Expected badPss = differs(CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD, "its code for all parameters");
  const char shaOne[] = "both have SHA-1 only, with different codes",
             saltLength[] = "the device's salt is as long as the hash";
  const auto rows = [&](Operation operation, CK_OBJECT_HANDLE key, const Expected& code,
                        std::initializer_list<Mechanism> mechanisms) {
    each(code, mechanisms, [&](const Mechanism& one) { return Session().init(operation, one, key); });
  };
  const CK_MECHANISM_TYPE pss256 = CKM_SHA256_RSA_PKCS_PSS;
  for (const Operation operation : {sign, verify}) {
    const CK_OBJECT_HANDLE key = operation == sign ? rsa_ : rsaPublic_;
    rows(operation, key, bad, {pss256, CKM_RSA_PKCS_PSS, {pss256, 'x'}});
    rows(operation, key, badPss,
         {pss(pss256, CKM_SHA_1, CKG_MGF1_SHA1, 20), pss(pss256, CKM_SHA256, CKG_MGF1_SHA1, 32)});
    rows(operation, key, differs(CKR_MECHANISM_PARAM_INVALID, CKR_OK, saltLength),
         {pss(pss256, CKM_SHA256, CKG_MGF1_SHA256, 20)});
    rows(operation, key, differs(CKR_MECHANISM_PARAM_INVALID, CKR_MECHANISM_INVALID, "its code for salts"),
         {pss(pss256, CKM_SHA256, CKG_MGF1_SHA256, 999)});
    rows(operation, key, differs(CKR_MECHANISM_PARAM_INVALID, CKR_OK, unlooked), {{CKM_SHA256_RSA_PKCS, 'x'}});
  }
  for (const Operation operation : {encrypt, decrypt}) {
    const CK_OBJECT_HANDLE key = operation == encrypt ? rsaPublic_ : rsa_;
    rows(operation, key, bad, {CKM_RSA_PKCS_OAEP, {CKM_RSA_PKCS_OAEP, 'x'}});
    rows(operation, key, differs(CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD, shaOne),
         {oaep(CKM_SHA256, CKG_MGF1_SHA256), oaep(CKM_SHA_1, CKG_MGF1_SHA256)});
  }
  rows(digest, 0, differs(CKR_MECHANISM_PARAM_INVALID, CKR_OK, unlooked), {{CKM_SHA256, 'x'}});
  CK_MECHANISM none{CKM_SHA256, &none, 0};
  is(f->C_DigestInit(*owner_, &none), CKR_OK, "a parameter without bytes is none");
  is(owner_->generate(CKM_RSA_PKCS_KEY_PAIR_GEN, {{CKA_MODULUS_BITS, 1024}}, {}), CKR_OK);
  rows(sign, owner_->made, differs(CKR_KEY_SIZE_RANGE, CKR_MECHANISM_INVALID, "its code for salts"),
       {pss(CKM_SHA512_RSA_PKCS_PSS, CKM_SHA512, CKG_MGF1_SHA512, 64)});
}

TEST_F(KeysTest, Encryption) {
  Session& s = *owner_;
  for (const Mechanism& mechanism : {Mechanism(CKM_RSA_PKCS), oaep(CKM_SHA_1, CKG_MGF1_SHA1)}) {
    for (const std::size_t size : {1u, 100u, mechanism.type == CKM_RSA_PKCS ? 245u : 214u}) {
      for (const std::size_t piece : {0u, isSoftHsm() ? 0u : 90u}) {  // SoftHSM2 encrypts with RSA in one part only
        const std::string data(size, 'p');
        is(s.run(encrypt, mechanism, rsaPublic_, data, piece), CKR_OK);
        std::string sent = s.out;
        is(s.run(decrypt, mechanism, rsa_, sent, piece), CKR_OK);
        EXPECT_EQ(s.out, data);
        sent.at(200) = static_cast<char>(sent[200] ^ 1);
        EXPECT_NE(s.run(decrypt, mechanism, rsa_, sent, piece), CKR_OK);
      }
    }
    is(s.run(encrypt, mechanism, rsaPublic_, std::string(mechanism.type == CKM_RSA_PKCS ? 246 : 215, 'p')),
       differs(CKR_DATA_LEN_RANGE, CKR_GENERAL_ERROR, byOpenSsl));
    is(s.run(encrypt, mechanism, rsaPublic_, ""), differs(CKR_DATA_LEN_RANGE, CKR_OK, "the device needs data"));
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
  const Template shortest = (isSoftHsm() ? readable : readable.without(CKA_CLASS)).with({{CKA_VALUE_LEN, 32}});
  const std::string z = s.value(secret, CKA_VALUE);
  is(s.derive(ec_, ecdh(CKD_NULL, own, none), shortest), CKR_OK);
  EXPECT_EQ(s.find({{CKA_CLASS, CKO_SECRET_KEY}, {CKA_VALUE_LEN, 32}, {CKA_VALUE, z}}).size(), 2U)
      << "both sides agree";
  for (const Attribute& one : {Attribute(CKA_SENSITIVE, true), Attribute(CKA_EXTRACTABLE, false)}) {
    is(s.derive(ec_, ecdh(CKD_NULL, own, none), readable.with({one, {CKA_VALUE_LEN, 32}})), CKR_OK);
    is(s.get(s.made, CKA_VALUE), CKR_ATTRIBUTE_SENSITIVE);
    const CK_ATTRIBUTE_TYPE always = one.type == CKA_SENSITIVE ? CKA_ALWAYS_SENSITIVE : CKA_NEVER_EXTRACTABLE;
    EXPECT_EQ(s.value(s.made, always), std::string(1, '\1')) << "as the base key";
    is(s.set(s.made, {{CKA_VALUE, z}}), CKR_ATTRIBUTE_READ_ONLY, "a guess is not confirmed");
  }
  EXPECT_EQ(s.find({{CKA_VALUE, z}}).size(), isSoftHsm() ? 4U : 2U) << "values that must not be read are not compared";

  const Expected bad{CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD};
  const auto derives = [&](const Mechanism& mechanism, const Template& wanted, const Expected& code,
                           const std::string& value, int line = __builtin_LINE()) {
    const CK_RV got = s.derive(mine, mechanism, wanted);
    if (is(got, code, "", line) && got == CKR_OK) {
      EXPECT_EQ(s.value(s.made, CKA_VALUE), value) << "line " << line;
    }
  };
  const auto sized = [&](CK_ULONG length) { return readable.with({{CKA_VALUE_LEN, length}}); };
  const Expected tooLong{CKR_KEY_SIZE_RANGE, CKR_ATTRIBUTE_VALUE_INVALID, CKR_TEMPLATE_INCONSISTENT};
  const Mechanism plain = ecdh(CKD_NULL, peer, none);
  derives(plain, sized(16), CKR_OK, z.substr(16));  // the leading bytes are cut off
  derives(plain, readable, CKR_OK, z);
  derives(ecdh(CKD_NULL, octets, none), readable, CKR_OK, z);
  derives(plain, sized(32).with({{CKA_KEY_TYPE, CKK_AES}}), CKR_OK, z);
  derives(plain, sized(33), differs(tooLong, CKR_FUNCTION_FAILED, byOpenSsl), "");
  derives(plain, sized(1 << 20), differs(CKR_ATTRIBUTE_VALUE_INVALID, CKR_FUNCTION_FAILED, byOpenSsl), "");
  derives(plain, sized((1 << 20) + 1), differs(CKR_TEMPLATE_INCONSISTENT, CKR_FUNCTION_FAILED, byOpenSsl), "");
  each(bad,
       {ecdh(CKD_NULL, peer, shared),
        ecdh(CKD_NULL, none, none),
        ecdh(99, peer, none),
        Mechanism(CKM_ECDH1_DERIVE),
        {CKM_ECDH1_DERIVE, 'x'}},
       [&](const Mechanism& one) { return s.derive(mine, one, readable); });
  derives(ecdh(CKD_NULL, "no point", none), readable, differs(bad, CKR_GENERAL_ERROR, byOpenSsl), "");
  derives(CKM_SHA256, readable, CKR_MECHANISM_INVALID, "");
  derives(plain, readable.with({{CKA_CLASS, CKO_PUBLIC_KEY}}), {CKR_TEMPLATE_INCONSISTENT, CKR_ATTRIBUTE_VALUE_INVALID},
          "");
  const Expected x963 = differs(CKR_OK, CKR_MECHANISM_PARAM_INVALID, nullOnly);
  derives(ecdh(CKD_SHA1_KDF, peer, none), sized(20), x963, derived(z, CKM_SHA_1, "", 20));
  derives(ecdh(CKD_SHA1_KDF, peer, shared), sized(50), x963, derived(z, CKM_SHA_1, shared, 50));
  derives(ecdh(CKD_SHA256_KDF, peer, shared), sized(100), x963, derived(z, CKM_SHA256, shared, 100));
  derives(ecdh(CKD_SHA256_KDF, peer, none), sized(16).with({{CKA_KEY_TYPE, CKK_AES}}), x963,
          derived(z, CKM_SHA256, "", 16));
  each({CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED}, {rsa_, secret},
       [&](CK_OBJECT_HANDLE key) { return s.derive(key, plain, readable); });
  is(s.derive(12345678, plain, readable), {CKR_KEY_HANDLE_INVALID, CKR_OBJECT_HANDLE_INVALID});
  is(s.destroy(secret), CKR_OK);
  is(s.get(secret, CKA_VALUE), CKR_OBJECT_HANDLE_INVALID);
}

}  // namespace
