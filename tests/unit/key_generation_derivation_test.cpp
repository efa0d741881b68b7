// C_GenerateKeyPair and C_DeriveKey.
#include "module_test.h"

namespace {

class KeyGenerationTest : public SessionTest {
 protected:
  Call generate(const Template& publicKey, const Template& privateKey) {
    return {"C_GenerateKeyPair", [=, this] {
              CK_MECHANISM mechanism{0xFFFFFFFF, nullptr, 0};  // the type does not matter
              return C_GenerateKeyPair(session_, &mechanism, publicKey.data(), publicKey.size(), privateKey.data(),
                                       privateKey.size(), &public_, &private_);
            }};
  }
  CK_OBJECT_HANDLE public_ = 77;
  CK_OBJECT_HANDLE private_ = 77;
};

const std::string yes(1, '\1'), no(1, '\0'), ec = number(CKK_EC);
const std::string p384("\x06\x05\x2B\x81\x04\x00\x22", 7);
const std::string p521("\x06\x05\x2B\x81\x04\x00\x23", 7);
const Template token{{CKA_TOKEN, yes}};

std::string keyTypeLogged(int type) { return "- C_GenerateKeyPair - keytype : " + std::to_string(type); }
std::string bitsLogged(int bits) { return "- C_GenerateKeyPair - modulusBits : " + std::to_string(bits); }
std::string asked(int type, int usage, const std::string& label = "", const std::string& id = "") {
  return "> generateKeyPair TK1 pin='1234' type=" + std::to_string(type) + " usage=" + std::to_string(usage) +
         " label='" + label + "' id='" + id + "' inst";
}

TEST_F(KeyGenerationTest, Refusals) {
  const CK_SESSION_HANDLE ro = open(readOnly);
  const Call inReadOnly = CALL(C_GenerateKeyPair, ro, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr);
  expect(inReadOnly, CKR_SESSION_HANDLE_INVALID, {": invalid session state=1"});
  ok(C_Logout(session_));
  expect(inReadOnly, CKR_SESSION_HANDLE_INVALID, {": invalid session state=0"});

  CK_ATTRIBUTE a{CKA_MODULUS_BITS, nullptr, 0};
  CK_MECHANISM m{CKM_EC_KEY_PAIR_GEN, nullptr, 0};
  int given = 0;  // arguments, from the left
  const Call call =
      CALL(C_GenerateKeyPair, session_, given > 0 ? &m : nullptr, given > 1 ? &a : nullptr, given > 2 ? 1 : 0,
           given > 3 ? &a : nullptr, given > 4 ? 1 : 0, given > 5 ? &public_ : nullptr, nullptr);
  for (const char* line : {": pMechanism is NULL", ": pPublicKeyTemplate is NULL", ": ulPublicKeyAttributeCount<=0",
                           ": pPrivateKeyTemplate is NULL", ": ulPrivateKeyAttributeCount<=0", ": phPublicKey is NULL",
                           ": phPrivateKey is NULL"}) {
    bad(call, line);
    ++given;
  }
  given = 1;
  for (const CK_MECHANISM& withParameter : {CK_MECHANISM{m.mechanism, &a, 0}, CK_MECHANISM{m.mechanism, nullptr, 1}}) {
    m = withParameter;
    expect(call, CKR_MECHANISM_PARAM_INVALID, {": mechanism param invalid for mechanism=4160"});
  }
  expect(generate({{CKA_MODULUS_BITS, number(1536)}}, token), CKR_MECHANISM_INVALID,
         {keyTypeLogged(0), bitsLogged(1536), ": unsupported RSA modulusBits=1536"});
  for (const std::string& curve : {std::string("\x13\x05P-256"), p256 + "x"}) {
    expect(generate({{CKA_EC_PARAMS, curve}}, {{CKA_KEY_TYPE, ec}}), CKR_MECHANISM_INVALID,
           {keyTypeLogged(3), ": unknown EC param (len=" + std::to_string(curve.size()) + ")"});
  }
  EXPECT_EQ(public_, 77u);
}

TEST_F(KeyGenerationTest, TemplatesDecideWhatTheDeviceIsAskedFor) {
  const std::string x200(200, 'x'), x128(128, 'x');
  const std::tuple<Template, Template, int, int, std::string> rows[] = {
      {token, token, 0, 0, asked(2, 1)},
      {{{CKA_MODULUS_BITS, number(1024)}}, {{CKA_SIGN, yes}}, 0, 1024, asked(1, 1)},
      {{{CKA_MODULUS_BITS, number(2048)}}, {{CKA_DECRYPT, yes}}, 0, 2048, asked(2, 2)},
      {{{CKA_MODULUS_BITS, number(3072)}}, {{CKA_DECRYPT, yes}, {CKA_SIGN, "\x80"}}, 0, 3072, asked(3, 3)},
      {{{CKA_MODULUS_BITS, number(4096)}}, {{CKA_DECRYPT, no}, {CKA_SIGN, no}}, 0, 4096, asked(4, 1)},
      {{{CKA_MODULUS_BITS, std::string("\x00\x10", 2)}}, token, 0, 4096, asked(4, 1)},
      {{{CKA_MODULUS_BITS, Template::nothing}, {CKA_EC_PARAMS, p384}}, {{CKA_ID, ""}}, 0, 0, asked(2, 1)},
      {token, {{CKA_KEY_TYPE, ec}}, 3, 0, asked(5, 3)},
      {{{CKA_EC_PARAMS, p256}}, {{CKA_KEY_TYPE, "\3"}, {CKA_SIGN, yes}}, 3, 0, asked(5, 1)},
      {{{CKA_EC_PARAMS, p384}, {CKA_MODULUS_BITS, number(99)}}, {{CKA_KEY_TYPE, ec}}, 3, 0, asked(6, 3)},
      {{{CKA_EC_PARAMS, p521}}, {{CKA_KEY_TYPE, ec}, {CKA_DECRYPT, yes}}, 3, 0, asked(7, 2)},
      {{{CKA_MODULUS_BITS, number(99)}}, {{CKA_KEY_TYPE, number(CKK_AES)}}, 31, 0, asked(2, 1)},
      {{{CKA_LABEL, "x"}, {CKA_DECRYPT, yes}}, {{CKA_LABEL, "key"}, {CKA_ID, "id"}}, 0, 0, asked(2, 1, "key", "id")},
      {token, {{CKA_LABEL, x200}, {CKA_ID, x200}}, 0, 0, asked(2, 1, x128, x128)}};
  CK_OBJECT_HANDLE next = 0x20;
  for (const auto& [publicKey, privateKey, keyType, bits, request] : rows) {
    SCOPED_TRACE(next);
    Lines lines{keyTypeLogged(keyType)};
    if (bits != 0) lines.push_back(bitsLogged(bits));
    does(generate(publicKey, privateKey), lines + Lines{request, "- C_GenerateKeyPair - exit"});
    EXPECT_EQ(public_, 0x70001000 + next);
    EXPECT_EQ(private_, 0x70000000 + next);
    ++next;
  }
}

class KeyDerivationTest : public SessionTest {
 protected:
  Call deriveKey(CK_EC_KDF_TYPE kdf, const Template& attributes = {}) {
    return {"C_DeriveKey", [=, this] {
              CK_ECDH1_DERIVE_PARAMS parameters{kdf, 6, bytes("shared"), 4, bytes("peer")};
              CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
              return C_DeriveKey(session_, &mechanism, ecPrivate, attributes.data(), attributes.size(), &key_);
            }};
  }
  std::string secret() { return get(session_, key_, CKA_VALUE); }
  CK_OBJECT_HANDLE key_ = 77;
};

const Lines deviceAsked{"- key id :: 2", keysListed, "- base key id :: 6B65792D320000000000000000000000",
                        "- public key :: 70656572", "> ecdhDerive TK1 key-2 pin='1234' peer='peer' inst"};

TEST_F(KeyDerivationTest, RefusalsAreSilent) {
  CK_ECDH1_DERIVE_PARAMS whole{CKD_NULL, 0, nullptr, 4, bytes("peer")};
  CK_ECDH1_DERIVE_PARAMS noPoint{CKD_NULL, 0, nullptr, 4, nullptr};
  CK_ECDH1_DERIVE_PARAMS noLength{CKD_NULL, 0, nullptr, 0, bytes("peer")};
  CK_MECHANISM m{CKM_ECDH1_COFACTOR_DERIVE, nullptr, 0};
  CK_OBJECT_HANDLE key = 0;
  const Call call = CALL(C_DeriveKey, session_, &m, key, nullptr, 0, &key_);
  expect(CALL(C_DeriveKey, session_, nullptr, 0, nullptr, 0, &key_), CKR_ARGUMENTS_BAD);
  expect(CALL(C_DeriveKey, session_, &m, 0, nullptr, 0, nullptr), CKR_ARGUMENTS_BAD);
  expect(call, CKR_MECHANISM_INVALID);
  const std::pair<CK_ECDH1_DERIVE_PARAMS*, std::size_t> parameters[] = {
      {nullptr, sizeof whole}, {&whole, sizeof whole - 1}, {&noPoint, sizeof whole}, {&noLength, sizeof whole}};
  for (const auto& [parameter, length] : parameters) {
    m = {CKM_ECDH1_DERIVE, parameter, static_cast<CK_ULONG>(length)};
    expect(call, CKR_MECHANISM_PARAM_INVALID);
  }
  m = {CKM_ECDH1_DERIVE, &whole, sizeof whole + 8};
  for (const CK_OBJECT_HANDLE other : {CK_OBJECT_HANDLE{0}, CK_OBJECT_HANDLE{0x6FFFFFFF}, ecPublic}) {
    key = other;
    expect(call, CKR_KEY_HANDLE_INVALID);
  }
  key = 0x70000FFF;
  expect(call, CKR_KEY_HANDLE_INVALID, {"- key id :: 4095", keysListed});
  EXPECT_EQ(key_, 77u);
}

TEST_F(KeyDerivationTest, SecretIsHashedAndCutAsAsked) {
  // The function, the code of its hash (0: none), the in-length for the hash, the template and the secret.
  const std::tuple<CK_EC_KDF_TYPE, int, int, Template, std::string> rows[] = {
      {CKD_NULL, 0, 0, {}, "Z(peer)"},
      {9, 0, 0, {{CKA_CLASS, number(CKO_SECRET_KEY)}, {CKA_LABEL, "x"}}, "Z(peer)"},
      {CKD_SHA1_KDF, 1, 20, {}, "H1(Z(peer))"},
      {CKD_SHA256_KDF, 4, 32, {}, "H4(Z(peer))"},
      {CKD_SHA256_KDF, 4, 32, {{CKA_VALUE_LEN, number(4)}}, "H4(Z"},
      {CKD_NULL, 0, 0, {{CKA_VALUE_LEN, number(3)}}, "Z(p"},
      {CKD_NULL, 0, 0, {{CKA_LABEL, "x"}, {CKA_VALUE_LEN, "\x09"}}, std::string("Z(peer)\0\0", 9)},
      {CKD_NULL, 0, 0, {{CKA_VALUE_LEN, number(0)}}, "Z(peer)"},
      {CKD_NULL, 0, 0, {{CKA_VALUE_LEN, Template::nothing}}, "Z(peer)"}};
  int context = 0;
  CK_OBJECT_HANDLE last = derive(session_, "first");
  EXPECT_GE(last, 0x70003000u);
  for (const auto& [kdf, hash, room, attributes, derived] : rows) {
    ++last;
    Lines lines = deviceAsked;
    if (hash != 0) {
      ++context;
      lines = lines + Lines{hashBegun(hash), hashUpdated(context, "Z(peer)"), hashFinished(context, room)};
    }
    does(deriveKey(kdf, attributes), lines + Lines{"- C_DeriveKey: done, handle=" + std::to_string(last) +
                                                   " len=" + std::to_string(derived.size())});
    EXPECT_EQ(key_, last);
    EXPECT_EQ(secret(), derived);
  }
  fake::fault("ecdhDerive", fake::Fault::Kind::length, 4096);
  ok(deriveKey(CKD_NULL));
  EXPECT_EQ(secret().size(), 4096u);
  // Secrets and their handles outlive sessions and the module's restart.
  ok(C_Finalize(nullptr));
  ok(C_Initialize(nullptr));
  ok(listSlots());
  session_ = openLoggedIn();
  EXPECT_EQ(secret().size(), 4096u);
  EXPECT_EQ(derive(session_, "x"), last + 2);
}

}  // namespace
