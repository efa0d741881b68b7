// Searches, attributes, templates, key generation, and the lifetime of objects.
#include <algorithm>
#include <sstream>

#include "client.h"
#include "softtoken/der.h"

namespace {

using Handles = std::vector<CK_OBJECT_HANDLE>;

// CN=Test
const std::string testSubject("\x30\x0F\x31\x0D\x30\x0B\x06\x03\x55\x04\x03\x0C\x04Test", 17);
const Expected noSuchObject = CKR_OBJECT_HANDLE_INVALID;
const char oneRecord[] = "a pair is one record of the device, with one label and one ID";

// What an RSA key in PKCS#1's DER has, as a template wants it.
Template importedKey() {
  const std::string der = fileNamed("imported.der");
  softtoken::ByteView rest = softtoken::viewOf(der);
  rest = softtoken::takeElement(rest).value().content;
  softtoken::takeElement(rest);  // the version
  Template key{{CKA_CLASS, CKO_PRIVATE_KEY}, {CKA_KEY_TYPE, CKK_RSA}, {CKA_LABEL, "imported"}, {CKA_ID, "number 7"}};
  for (const CK_ATTRIBUTE_TYPE type : {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2,
                                       CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT}) {
    const auto number = softtoken::withoutLeadingZeros(softtoken::takeElement(rest).value().content);
    key = key.with({{type, std::string(number.begin(), number.end())}});
  }
  return key.with({{CKA_SIGN, true}, {CKA_DECRYPT, true}});
}

Template certificate() {
  return {{CKA_CLASS, CKO_CERTIFICATE}, {CKA_CERTIFICATE_TYPE, CKC_X_509},
          {CKA_LABEL, "certificate"},   {CKA_ID, "rsa"},
          {CKA_SUBJECT, testSubject},   {CKA_VALUE, fileNamed("certificate.der")}};
}

TEST_F(KeysTest, SearchesMatchEveryAttributeExactly) {
  Session& s = *owner_;
  const std::string modulus = s.value(rsa_, CKA_MODULUS);
  const auto expect = [&](Handles expected, std::initializer_list<Template> templates) {
    std::sort(expected.begin(), expected.end());
    for (const Template& wanted : templates) {
      Handles found = s.find(wanted);
      std::sort(found.begin(), found.end());
      EXPECT_EQ(found, expected) << "row " << &wanted - templates.begin();
    }
  };
  expect({rsa_, rsaPublic_, ec_, ecPublic_}, {{}, {{CKA_TOKEN, true}}});
  expect({rsa_, ec_}, {{{CKA_CLASS, CKO_PRIVATE_KEY}}, {{CKA_SIGN, true}}, {{CKA_PRIVATE, true}}});
  expect({rsa_, rsaPublic_}, {{{CKA_KEY_TYPE, CKK_RSA}}, {{CKA_LABEL, "rsa"}}, {{CKA_MODULUS, modulus}}});
  expect({ec_, ecPublic_}, {{{CKA_ID, "ec"}, {CKA_LABEL, "ec"}, {CKA_TOKEN, true}}});
  expect({rsa_}, {{{CKA_DECRYPT, true}, {CKA_CLASS, CKO_PRIVATE_KEY}}});
  expect({rsaPublic_}, {{{CKA_MODULUS_BITS, 2048}}});
  expect({ecPublic_},
         {{{CKA_CLASS, CKO_PUBLIC_KEY}, {CKA_KEY_TYPE, CKK_EC}}, {{CKA_EC_PARAMS, p256}, {CKA_CLASS, CKO_PUBLIC_KEY}}});
  expect({}, {{{CKA_LABEL, "rs"}},
              {{CKA_LABEL, std::string("rsa\0", 4)}},
              {{CKA_LABEL, ""}},
              {{CKA_TOKEN, false}},
              {{CKA_MODULUS, modulus.substr(1)}},
              {{CKA_CLASS, CKO_SECRET_KEY}},
              {{CKA_VENDOR_DEFINED | 1, true}},
              {{CKA_ID, "ec"}, {CKA_LABEL, "rsa"}}});
}

TEST_F(KeysTest, SearchesAreSnapshots) {
  Session& s = *owner_;
  CK_OBJECT_HANDLE found[2];
  CK_ULONG count = 7, total = 0;
  all(CKR_OPERATION_NOT_INITIALIZED, {f->C_FindObjects(s, found, 1, &count), f->C_FindObjectsFinal(s)});
  is(f->C_FindObjectsInit(s, nullptr, 1), CKR_ARGUMENTS_BAD);
  Template shortNumber{{CKA_CLASS, "\3"}};
  is(f->C_FindObjectsInit(Session(), shortNumber.data(), 1), {CKR_OK, CKR_ATTRIBUTE_VALUE_INVALID});
  is(f->C_FindObjectsInit(s, nullptr, 0), CKR_OK);
  is(f->C_FindObjectsInit(s, nullptr, 0), CKR_OPERATION_ACTIVE);
  all(CKR_ARGUMENTS_BAD, {f->C_FindObjects(s, nullptr, 1, &count), f->C_FindObjects(s, found, 1, nullptr)});
  is(Session().create(certificate().with({{CKA_TOKEN, false}})), CKR_OK);
  EXPECT_FALSE(s.value(rsa_, CKA_MODULUS).empty()) << "attributes can be read between";
  for (; count != 0 && total < 9; total += count) is(f->C_FindObjects(s, found, 1, &count), CKR_OK);
  EXPECT_EQ(total, 4U);
  is(f->C_FindObjectsFinal(s), CKR_OK);
}

TEST_F(KeysTest, Attributes) {
  Session& s = *owner_;
  const auto expect = [&](CK_OBJECT_HANDLE object, const Template& attributes) {
    for (const Attribute& one : attributes.values()) {
      const std::string name = std::to_string(one.type);
      if (is(s.get(object, one.type), CKR_OK, name)) {
        EXPECT_EQ(s.out, one.value) << name;
      }
    }
  };
  const auto none = [&](CK_RV code, CK_OBJECT_HANDLE object, std::initializer_list<CK_ATTRIBUTE_TYPE> types) {
    each(code, types, [&](CK_ATTRIBUTE_TYPE type) { return s.get(object, type); });
    EXPECT_EQ(s.length, CK_UNAVAILABLE_INFORMATION);
  };
  const Template both{{CKA_TOKEN, true}, {CKA_PRIVATE, true}, {CKA_CLASS, CKO_PRIVATE_KEY}, {CKA_SIGN, true}};
  expect(rsa_, both.with({{CKA_LABEL, "rsa"}, {CKA_ID, "rsa"}, {CKA_KEY_TYPE, CKK_RSA}, {CKA_DECRYPT, true}}));
  expect(rsa_,
         {{CKA_SENSITIVE, true}, {CKA_EXTRACTABLE, false}, {CKA_DERIVE, false}, {CKA_ALWAYS_AUTHENTICATE, false}});
  expect(rsaPublic_, {{CKA_PRIVATE, false}, {CKA_MODULUS_BITS, 2048}, {CKA_MODULUS, s.value(rsa_, CKA_MODULUS)}});
  expect(rsaPublic_, {{CKA_VERIFY, true}, {CKA_ENCRYPT, true}, {CKA_TRUSTED, false}, {CKA_PUBLIC_EXPONENT, exponent}});
  expect(ec_, both.with({{CKA_KEY_TYPE, CKK_EC}, {CKA_EC_PARAMS, p256}, {CKA_DERIVE, true}}));
  expect(ecPublic_, {{CKA_EC_PARAMS, p256}, {CKA_VERIFY, true}});
  none(CKR_ATTRIBUTE_SENSITIVE, rsa_, {CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_COEFFICIENT});
  none(CKR_ATTRIBUTE_SENSITIVE, ec_, {CKA_VALUE});
  none(CKR_ATTRIBUTE_TYPE_INVALID, rsa_, {CKA_MODULUS_BITS, CKA_VALUE, CKA_EC_POINT, CKA_VERIFY});
  none(CKR_ATTRIBUTE_TYPE_INVALID, rsaPublic_, {CKA_PRIVATE_EXPONENT, CKA_SENSITIVE, CKA_SIGN});
  none(CKR_ATTRIBUTE_TYPE_INVALID, ec_, {CKA_EC_POINT, CKA_MODULUS, CKA_PUBLIC_EXPONENT});
  none(CKR_ATTRIBUTE_TYPE_INVALID, ecPublic_, {CKA_VALUE, CKA_VENDOR_DEFINED | 1});
  each(noSuchObject, {0u, 12345678u}, [&](CK_OBJECT_HANDLE object) { return s.get(object, CKA_CLASS); });
  EXPECT_EQ(s.value(rsa_, CKA_MODULUS).size(), 256U);
  EXPECT_EQ(s.value(ecPublic_, CKA_EC_POINT).substr(0, 3), "\x04\x41\x04");

  // Every entry is processed, whatever happened to the others.
  char label[8] = "-------", modulus[10];
  CK_ULONG objectClass = 77, unused = 88;
  CK_ATTRIBUTE several[] = {
      {CKA_PRIVATE_EXPONENT, modulus, 10}, {CKA_LABEL, label, 8}, {CKA_VALUE, modulus, 10},
      {CKA_MODULUS, modulus, 10},          {CKA_ID, nullptr, 99}, {CKA_CLASS, &objectClass, sizeof unused}};
  is(f->C_GetAttributeValue(s, rsa_, several, 6),
     {CKR_ATTRIBUTE_SENSITIVE, CKR_ATTRIBUTE_TYPE_INVALID, CKR_BUFFER_TOO_SMALL});
  EXPECT_EQ(std::string(label), "rsa----");
  EXPECT_EQ(objectClass, CKO_PRIVATE_KEY);
  const CK_ULONG gone = CK_UNAVAILABLE_INFORMATION, lengths[] = {gone, 3, gone, gone, 3, sizeof unused};
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(several[i].ulValueLen, lengths[i]) << i;
  is(s.get(rsa_, CKA_MODULUS, 255), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(s.length, CK_UNAVAILABLE_INFORMATION);
  all(CKR_ARGUMENTS_BAD, {f->C_GetAttributeValue(s, rsa_, nullptr, 1), f->C_GetObjectSize(s, rsa_, nullptr)});
  is(f->C_GetObjectSize(s, rsa_, &unused), CKR_OK);
  is(f->C_GetObjectSize(s, 12345678, &unused), noSuchObject);
}

TEST_F(KeysTest, ChangingAttributes) {
  Session& s = *owner_;
  const Session reader(0);
  is(reader.set(rsa_, {{CKA_LABEL, "new"}}), CKR_SESSION_READ_ONLY);
  is(s.set(12345678, {{CKA_LABEL, "new"}}), noSuchObject);
  is(s.set(rsa_, {{CKA_VENDOR_DEFINED | 1, true}}), CKR_ATTRIBUTE_TYPE_INVALID);
  const Template fixed{{CKA_CLASS, CKO_PUBLIC_KEY}, {CKA_KEY_TYPE, CKK_EC},  {CKA_TOKEN, false}, {CKA_MODULUS, "m"},
                       {CKA_SENSITIVE, false},      {CKA_EXTRACTABLE, true}, {CKA_LOCAL, false}, {CKA_PRIME_1, "p"}};
  for (const Attribute& one : fixed.values()) {
    is(s.set(rsa_, {{CKA_LABEL, "rsa"}, one}), CKR_ATTRIBUTE_READ_ONLY, std::to_string(one.type));
  }
  EXPECT_EQ(s.value(rsa_, CKA_LABEL), "rsa") << "a refusal changes nothing";
  is(s.set(rsa_, {{CKA_LABEL, std::string("a\0b", 3)}}), differs(CKR_ATTRIBUTE_VALUE_INVALID, CKR_OK, unlooked));
  EXPECT_EQ(s.value(rsa_, CKA_LABEL), isSoftHsm() ? std::string("a\0b", 3) : "rsa");
  is(s.set(rsa_, {{CKA_LABEL, "another"}}), CKR_OK);
  EXPECT_EQ(s.value(rsa_, CKA_LABEL), "another");
  EXPECT_EQ(s.value(rsa_, CKA_ID), "rsa") << "the ID stays";
  EXPECT_EQ(s.value(rsaPublic_, CKA_LABEL), isSoftHsm() ? "rsa" : "another") << oneRecord;
  is(s.set(rsa_, {{CKA_ID, "other"}, {CKA_SUBJECT, "name"}}), CKR_OK);
  EXPECT_EQ(s.value(rsa_, CKA_LABEL), "another") << "the label stays";
  EXPECT_EQ(s.find({{CKA_ID, "other"}, {CKA_CLASS, CKO_PRIVATE_KEY}}), Handles{rsa_}) << "the handle stays";
  is(s.set(rsa_, {{CKA_ID, "rsa"}, {CKA_LABEL, "rsa"}}), CKR_OK);
  is(s.set(rsaPublic_, {{CKA_VERIFY, true}}), CKR_OK, "the value that it has");
  EXPECT_EQ(s.value(rsa_, CKA_SUBJECT), "name");
  is(f->C_SetAttributeValue(s, rsa_, nullptr, 1), CKR_ARGUMENTS_BAD);
}

TEST_F(KeysTest, CreatingObjects) {
  const std::string modulus = owner_->value(rsa_, CKA_MODULUS), point = owner_->value(ecPublic_, CKA_EC_POINT);
  const Template publicKey{{CKA_CLASS, CKO_PUBLIC_KEY}, {CKA_KEY_TYPE, CKK_RSA},         {CKA_TOKEN, false},
                           {CKA_MODULUS, modulus},      {CKA_PUBLIC_EXPONENT, exponent}, {CKA_LABEL, "data"}};
  const Template ecKey = publicKey.without(CKA_MODULUS)
                             .without(CKA_PUBLIC_EXPONENT)
                             .with({{CKA_KEY_TYPE, CKK_EC}, {CKA_EC_PARAMS, p256}, {CKA_EC_POINT, point}});
  const Template imported = importedKey().with({{CKA_TOKEN, false}});
  const Template secret{
      {CKA_CLASS, CKO_SECRET_KEY}, {CKA_KEY_TYPE, CKK_GENERIC_SECRET}, {CKA_TOKEN, false}, {CKA_VALUE, "v"}};
  const auto create = [](const Template& object) {
    Session s;
    const CK_RV code = s.create(object);
    is(f->C_CloseSession(s), CKR_OK);
    return code;
  };
  each(CKR_OK,
       {publicKey.with({{CKA_ALLOWED_MECHANISMS, CK_ULONG{CKM_RSA_PKCS}}}), ecKey.with({{CKA_END_DATE, "20301231"}}),
        certificate().with({{CKA_TOKEN, false}, {CKA_CERTIFICATE_CATEGORY, 1}, {CKA_PUBLIC_KEY_INFO, ""}}),
        imported.with({{CKA_LABEL, ""}, {CKA_ID, ""}})},
       create);
  each(CKR_TEMPLATE_INCOMPLETE,
       {Template{}, publicKey.without(CKA_CLASS), publicKey.without(CKA_KEY_TYPE), publicKey.without(CKA_MODULUS),
        publicKey.without(CKA_PUBLIC_EXPONENT), ecKey.without(CKA_EC_POINT), ecKey.without(CKA_EC_PARAMS),
        certificate().without(CKA_VALUE), certificate().without(CKA_SUBJECT),
        certificate().without(CKA_CERTIFICATE_TYPE), imported.without(CKA_MODULUS),
        imported.without(CKA_PRIVATE_EXPONENT)},
       create);
  each({CKR_ATTRIBUTE_VALUE_INVALID, CKR_TEMPLATE_INCONSISTENT},
       {publicKey.with({{CKA_CLASS, 99}}), publicKey.with({{CKA_KEY_TYPE, 99}}), publicKey.with({{CKA_TOKEN, 1}})},
       create);
  each(differs(CKR_ATTRIBUTE_VALUE_INVALID, CKR_TEMPLATE_INCOMPLETE, unlooked),
       {publicKey.with({{CKA_CLASS, "x"}}), publicKey.with({{CKA_KEY_TYPE, "x"}})}, create);
  is(create(publicKey.with({{CKA_START_DATE, "2030"}})), CKR_ATTRIBUTE_VALUE_INVALID);
  is(create(certificate().with({{CKA_VALUE, ""}})), differs(CKR_ATTRIBUTE_VALUE_INVALID, CKR_OK, unlooked));
  is(create(publicKey.with({{CKA_LOCAL, true}})), {CKR_ATTRIBUTE_READ_ONLY, CKR_TEMPLATE_INCONSISTENT});
  each({CKR_TEMPLATE_INCONSISTENT, CKR_ATTRIBUTE_TYPE_INVALID},
       {publicKey.with({{CKA_EC_POINT, point}}), imported.with({{CKA_KEY_TYPE, CKK_EC}})}, create);
  is(create(secret), differs(CKR_ATTRIBUTE_VALUE_INVALID, CKR_OK, "it has secret keys"));
  is(owner_->create(certificate().with({{CKA_TOKEN, true}, {CKA_VALUE, std::string(3073, 'x')}})),
     differs(CKR_ATTRIBUTE_VALUE_INVALID, CKR_OK, unlooked));
  owner_->destroy(owner_->made);
  // Clients write a public key after its private key, whose half it is on the token already.
  for (const auto& [key, half] : {std::pair(publicKey.with({{CKA_LABEL, "rsa"}}), rsaPublic_),
                                  std::pair(ecKey.with({{CKA_LABEL, "ec"}}), ecPublic_)}) {
    is(owner_->create(key.with({{CKA_TOKEN, true}})), CKR_OK);
    if (isSoftHsm())
      is(owner_->destroy(owner_->made), CKR_OK);
    else
      EXPECT_EQ(owner_->made, half);
  }
  for (const Attribute& one : {Attribute(CKA_MODULUS, std::string(256, 'm')), Attribute(CKA_PRIVATE, true)}) {
    is(owner_->create(publicKey.with({{CKA_TOKEN, true}, one})),
       differs(CKR_TEMPLATE_INCONSISTENT, CKR_OK, "it keeps lone and private public keys"));
    owner_->destroy(owner_->made);
  }
  Session reader(0);
  is(reader.create(publicKey), CKR_OK, "session objects are a reader's too");
  is(reader.create(certificate().with({{CKA_TOKEN, true}})), CKR_SESSION_READ_ONLY);
  is(reader.create(importedKey().with({{CKA_TOKEN, true}})), CKR_SESSION_READ_ONLY);
  Template made = publicKey;
  is(f->C_CreateObject(*owner_, made.data(), made.size(), nullptr), CKR_ARGUMENTS_BAD);
  is(f->C_CreateObject(*owner_, nullptr, 1, &owner_->made), CKR_ARGUMENTS_BAD);
  is(f->C_Logout(*owner_), CKR_OK);
  for (const Template& object : {importedKey().with({{CKA_TOKEN, true}}), publicKey})
    is(owner_->create(object.with({{CKA_PRIVATE, true}})), CKR_USER_NOT_LOGGED_IN);
}

// Which attributes a template of each kind may have, as a whole list; "!" before those that only the token sets.
TEST_F(KeysTest, AttributesOfTemplates) {
  if (isSoftHsm()) GTEST_SKIP() << "it has others";
  Session& s = *owner_;
  const auto accepted = [](auto call) {
    std::ostringstream list;
    for (CK_ATTRIBUTE_TYPE type = 0; type < 0x700; ++type) {
      const CK_RV code = call(type == CKA_CLASS ? Template{} : Template{{type, ""}});
      if (code == CKR_OK) ADD_FAILURE() << "nothing must be made";
      if (code != CKR_ATTRIBUTE_TYPE_INVALID)
        list << (code == CKR_ATTRIBUTE_READ_ONLY ? "!" : "") << std::hex << type << ' ';
    }
    return list.str();
  };
  const auto created = [&](CK_OBJECT_CLASS objectClass) {
    return accepted([&](const Template& more) { return s.create(more.with({{CKA_CLASS, objectClass}})); });
  };
  CK_ECDH1_DERIVE_PARAMS parameters{CKD_NULL, 0, nullptr, 1, bytesOf(p256)};
  const Template wrong{{CKA_CLASS, CKO_DATA}};
  EXPECT_EQ(created(CKO_CERTIFICATE),
            "0 1 2 3 11 80 81 82 86 87 88 89 8a 8b 8c 90 101 102 110 111 129 !163 !164 !165 !166 170 171 172 ");
  EXPECT_EQ(created(CKO_PUBLIC_KEY),
            "0 1 2 3 86 100 101 102 104 106 10a 10b 10c 110 111 120 121 122 129 !163 !164 !165 !166 170 171 172 180 "
            "181 ");
  EXPECT_EQ(created(CKO_PRIVATE_KEY),
            "0 1 2 3 100 101 102 103 105 107 108 109 10c 110 111 120 122 123 124 125 126 127 128 129 162 !163 !164 "
            "!165 !166 170 171 172 202 210 ");
  EXPECT_EQ(accepted([&](const Template& more) { return s.generate(CKM_EC_KEY_PAIR_GEN, more.with(wrong), {}); }),
            "0 1 2 3 86 100 101 102 104 106 10a 10b 10c 110 111 121 122 129 !163 !164 !165 !166 170 171 172 180 ");
  EXPECT_EQ(accepted([&](const Template& more) { return s.generate(CKM_EC_KEY_PAIR_GEN, {}, more.with(wrong)); }),
            "0 1 2 3 100 101 102 103 105 107 108 109 10c 110 111 129 162 !163 !164 !165 !166 170 171 172 202 210 ");
  EXPECT_EQ(accepted([&](const Template& more) {
              return s.derive(ec_, {CKM_ECDH1_DERIVE, parameters}, more.with(wrong));
            }),
            "0 1 2 3 86 100 102 103 104 105 106 107 108 10a 10c 110 111 161 162 !163 !164 !165 !166 170 171 172 210 ");
}

TEST_F(KeysTest, ImportedKeysAndCertificates) {
  Session& s = *owner_;
  is(s.create(importedKey().with({{CKA_TOKEN, true}})), CKR_OK);
  const CK_OBJECT_HANDLE key = s.made;
  const Template wanted{{CKA_LABEL, "imported"}, {CKA_ID, "number 7"}, {CKA_CLASS, CKO_PRIVATE_KEY}};
  EXPECT_EQ(s.find(wanted), Handles{key});
  is(s.run(sign, CKM_SHA256_RSA_PKCS, key, "text"), CKR_OK);
  const std::string signature = s.out;
  EXPECT_TRUE(verifies(s.value(key, CKA_MODULUS), hashed(CKM_SHA256, "text"), signature));
  is(s.create(certificate().with({{CKA_TOKEN, true}})), CKR_OK);
  const CK_OBJECT_HANDLE stored = s.made;
  EXPECT_EQ(s.find({{CKA_CLASS, CKO_CERTIFICATE}, {CKA_ID, "rsa"}, {CKA_LABEL, "certificate"}}), Handles{stored});
  EXPECT_EQ(s.value(stored, CKA_VALUE), fileNamed("certificate.der"));
  EXPECT_EQ(s.value(stored, CKA_TRUSTED), std::string(1, '\0'));
  EXPECT_EQ(s.value(stored, CKA_SUBJECT), testSubject);
  is(s.get(stored, CKA_MODULUS), CKR_ATTRIBUTE_TYPE_INVALID);
  is(s.get(stored, CKA_URL), CKR_OK);
  if (!isSoftHsm()) {
    is(s.create(certificate().with({{CKA_TOKEN, true}})), CKR_OK);
    EXPECT_EQ(s.made, stored) << "the token keeps a certificate once";
  }
  const Session reader(0);
  is(reader.destroy(stored), CKR_SESSION_READ_ONLY);
  for (const CK_OBJECT_HANDLE object : s.find({{CKA_LABEL, "imported"}})) {
    if (object != key) is(s.destroy(object), CKR_OK);
  }
  for (const CK_OBJECT_HANDLE object : {key, stored}) {
    is(s.destroy(object), CKR_OK);
    is(s.destroy(object), noSuchObject);
    is(s.get(object, CKA_CLASS), noSuchObject);
  }
  is(s.init(sign, CKM_SHA256_RSA_PKCS, key), noSuchKey());
  EXPECT_EQ(s.find({}).size(), 4U);
}

TEST_F(KeysTest, GeneratingKeys) {
  const Template none{}, bits{{CKA_MODULUS_BITS, 2048}}, curve{{CKA_EC_PARAMS, p256}}, kept{{CKA_TOKEN, true}};
  const Expected badValue{CKR_ATTRIBUTE_VALUE_INVALID, CKR_TEMPLATE_INCONSISTENT};
  const Expected badCurve = differs({CKR_ATTRIBUTE_VALUE_INVALID, CKR_DOMAIN_PARAMS_INVALID, CKR_CURVE_NOT_SUPPORTED},
                                    CKR_GENERAL_ERROR, byOpenSsl);
  const Expected badSize{CKR_ATTRIBUTE_VALUE_INVALID, CKR_KEY_SIZE_RANGE};
  const CK_MECHANISM_TYPE rsaPair = CKM_RSA_PKCS_KEY_PAIR_GEN, ecPair = CKM_EC_KEY_PAIR_GEN;
  const struct {
    CK_MECHANISM_TYPE type;
    Expected code;
    Template publicPart, privatePart;
  } refused[] = {{rsaPair, CKR_TEMPLATE_INCOMPLETE, none, none},
                 {ecPair, CKR_TEMPLATE_INCOMPLETE, none, none},
                 {CKM_RSA_PKCS, CKR_MECHANISM_INVALID, bits, none},
                 {CKM_VENDOR_DEFINED | 1, CKR_MECHANISM_INVALID, bits, none},
                 {rsaPair, differs(badSize, CKR_OK, "any size will do there"), {{CKA_MODULUS_BITS, 1001}}, none},
                 {rsaPair, differs(badSize, CKR_GENERAL_ERROR, byOpenSsl), {{CKA_MODULUS_BITS, 100000}}, none},
                 {rsaPair, CKR_ATTRIBUTE_VALUE_INVALID, {{CKA_MODULUS_BITS, "x"}}, none},
                 {rsaPair, differs(CKR_ATTRIBUTE_VALUE_INVALID, CKR_GENERAL_ERROR, byOpenSsl),
                  bits.with({{CKA_PUBLIC_EXPONENT, "\2"}}), none},
                 {rsaPair, badValue, bits.with({{CKA_KEY_TYPE, CKK_EC}}), none},
                 {rsaPair, badValue, bits, {{CKA_KEY_TYPE, CKK_EC}}},
                 {rsaPair, badValue, bits.with({{CKA_CLASS, CKO_PRIVATE_KEY}}), none},
                 {rsaPair, badValue, bits, {{CKA_CLASS, CKO_PUBLIC_KEY}}},
                 {ecPair, badCurve, {{CKA_EC_PARAMS, "x"}}, none},
                 {ecPair, {CKR_TEMPLATE_INCONSISTENT, CKR_ATTRIBUTE_TYPE_INVALID}, curve.with(bits), none},
                 {ecPair, badCurve, {{CKA_EC_PARAMS, std::string("\x06\x05\x2B\x81\x04\x00\x7F", 7)}}, none},
                 {ecPair, CKR_ATTRIBUTE_VALUE_INVALID, curve, {{CKA_SIGN, "yes"}}}};
  for (const auto& row : refused) {
    Session s;
    is(s.generate(row.type, row.publicPart, row.privatePart), row.code, std::to_string(&row - refused));
    is(f->C_CloseSession(s), CKR_OK);
  }
  EXPECT_EQ(owner_->find({}).size(), 4U) << "refused templates leave no keys";

  Session reader(0);
  is(reader.generate(CKM_EC_KEY_PAIR_GEN, curve.with({{CKA_TOKEN, true}}), kept), CKR_SESSION_READ_ONLY);
  is(reader.generate(CKM_EC_KEY_PAIR_GEN, curve, none), CKR_OK, "a reader's session keys");
  is(f->C_Logout(reader), CKR_OK);
  is(owner_->generate(CKM_EC_KEY_PAIR_GEN, curve, {{CKA_TOKEN, true}, {CKA_PRIVATE, true}}), CKR_USER_NOT_LOGGED_IN);
  is(owner_->login(), CKR_OK);
  is(f->C_CloseSession(reader), CKR_OK);

  // Everything that the attributes of either template say.
  Session& s = *owner_;
  const Template names{{CKA_TOKEN, true}, {CKA_LABEL, "made"}, {CKA_ID, "42"}};
  for (const std::string* parameters : {&p256, &p384, &p521}) {
    is(s.generate(CKM_EC_KEY_PAIR_GEN, names.with({{CKA_EC_PARAMS, *parameters}}), names.with({{CKA_SIGN, true}})),
       CKR_OK);
    EXPECT_EQ(s.value(s.made, CKA_LABEL) + s.value(s.madePublic, CKA_ID), "made42");
    EXPECT_EQ(s.value(s.madePublic, CKA_EC_PARAMS), *parameters);
    do {
      is(s.run(sign, CKM_ECDSA, s.made, std::string(20, 'h')), CKR_OK);
    } while (parameters == &p521 && s.out[0] + s.out[66] != 0);  // numbers of 65 bytes: half of all are shorter
    const std::string signature = s.out;
    if (parameters == &p521) {
      s.out = signature.substr(1, 65) + signature.substr(67);
      is(s.run(verify, CKM_ECDSA, s.madePublic, std::string(20, 'h')),
         differs(CKR_OK, CKR_SIGNATURE_LEN_RANGE, unlooked));
    }
    EXPECT_TRUE(verifies(s.value(s.madePublic, CKA_EC_POINT), std::string(20, 'h'), signature));
    const CK_OBJECT_HANDLE key = s.made;
    is(s.destroy(s.madePublic), CKR_OK);
    EXPECT_EQ(s.find({{CKA_ID, "42"}, {CKA_CLASS, CKO_PRIVATE_KEY}}), Handles{key}) << "half a pair is destroyed alone";
    EXPECT_TRUE(s.find({{CKA_ID, "42"}, {CKA_CLASS, CKO_PUBLIC_KEY}}).empty());
    is(s.destroy(key), CKR_OK);
  }
  is(s.generate(CKM_EC_KEY_PAIR_GEN, curve, none), CKR_OK);
  is(s.destroy(s.made), CKR_OK);
  EXPECT_EQ(s.value(s.madePublic, CKA_VERIFY), std::string(1, isSoftHsm() ? '\1' : '\0')) << oneRecord;
  is(s.destroy(s.madePublic), CKR_OK);
  EXPECT_EQ(s.find({}).size(), 4U);
}

TEST_F(KeysTest, DataObjects) {
  Session reader(0), other;
  const Template data{{CKA_CLASS, CKO_DATA},      {CKA_TOKEN, false}, {CKA_LABEL, "note"},
                      {CKA_APPLICATION, "tests"}, {CKA_VALUE, ""},    {CKA_PRIVATE, false}};
  is(other.create(data.with({{CKA_TOKEN, true}})), differs(CKR_TEMPLATE_INCONSISTENT, CKR_OK, "it stores data"));
  other.destroy(other.made);
  is(reader.create(data), CKR_OK);
  const CK_OBJECT_HANDLE note = reader.made;
  is(reader.copy(note, {{CKA_LABEL, "copy"}}), CKR_OK);
  is(reader.set(note, {{CKA_LABEL, "new"}}), CKR_OK);
  is(reader.set(note, {{CKA_VALUE, "text"}}), CKR_ATTRIBUTE_READ_ONLY);
  is(reader.set(note, {{CKA_ID, "1"}}), CKR_ATTRIBUTE_TYPE_INVALID);
  EXPECT_EQ(other.find({{CKA_APPLICATION, "tests"}, {CKA_LABEL, "copy"}}), Handles{reader.made});
  EXPECT_EQ(other.find({{CKA_VALUE, ""}, {CKA_LABEL, "new"}}), Handles{note});
  is(other.get(note, CKA_OBJECT_ID), CKR_OK);
  is(other.init(sign, CKM_RSA_PKCS, note), differs(CKR_KEY_HANDLE_INVALID, CKR_KEY_FUNCTION_NOT_PERMITTED, ""));
  is(reader.destroy(reader.made), CKR_OK);
  is(reader.copy(note, {{CKA_PRIVATE, true}, {CKA_MODIFIABLE, false}}), CKR_OK);
  is(reader.set(reader.made, {{CKA_LABEL, "copy"}}), CKR_ACTION_PROHIBITED);
  is(reader.create(data.with({{CKA_PRIVATE, true}, {CKA_COPYABLE, false}, {CKA_DESTROYABLE, false}})), CKR_OK);
  all(CKR_ACTION_PROHIBITED, {reader.destroy(reader.made), reader.copy(reader.made, {})});
  is(other.create(data.with({{CKA_PRIVATE, true}})), CKR_OK);
  is(f->C_Logout(other), CKR_OK);
  EXPECT_EQ(other.find({{CKA_CLASS, CKO_DATA}}), Handles{note});
  is(f->C_CloseSession(reader), CKR_OK);
  is(other.get(note, CKA_VALUE), noSuchObject);
}

TEST_F(KeysTest, SessionObjects) {
  Session maker, other, last;
  const Template curve{{CKA_EC_PARAMS, p256}, {CKA_TOKEN, false}};
  const Template own{
      {CKA_TOKEN, false}, {CKA_LABEL, "passing"}, {CKA_SIGN, true}, {CKA_SENSITIVE, false}, {CKA_EXTRACTABLE, true}};
  is(maker.generate(CKM_EC_KEY_PAIR_GEN, curve, own), CKR_OK);
  const CK_OBJECT_HANDLE key = maker.made, publicKey = maker.madePublic;
  EXPECT_EQ(other.value(key, CKA_TOKEN), std::string(1, '\0'));
  EXPECT_EQ(other.find({{CKA_LABEL, "passing"}, {CKA_CLASS, CKO_PRIVATE_KEY}}), Handles{key});
  is(other.run(sign, CKM_ECDSA, key, std::string(32, 'h')), CKR_OK);

  is(other.copy(12345678, {}), noSuchObject);
  is(Session(0).copy(key, {{CKA_TOKEN, true}}), CKR_SESSION_READ_ONLY);
  is(other.copy(key, {{CKA_KEY_TYPE, CKK_RSA}}), {CKR_ATTRIBUTE_READ_ONLY, CKR_TEMPLATE_INCONSISTENT});
  is(other.copy(key, {}), differs(CKR_TEMPLATE_INCONSISTENT, CKR_OK, "it copies session keys"));
  is(other.copy(key, {{CKA_TOKEN, true}, {CKA_LABEL, "kept"}, {CKA_ID, "k"}}), CKR_OK);
  const CK_OBJECT_HANDLE kept = other.made;
  EXPECT_NE(kept, key);
  is(other.copy(publicKey, {{CKA_TOKEN, true}, {CKA_LABEL, "kept"}, {CKA_ID, "k"}}), CKR_OK);
  EXPECT_EQ(other.find({{CKA_LABEL, "kept"}, {CKA_CLASS, CKO_PUBLIC_KEY}}), Handles{other.made});
  is(f->C_CloseSession(maker), CKR_OK);
  is(other.get(publicKey, CKA_CLASS), noSuchObject);
  is(other.get(key, CKA_CLASS), noSuchObject);
  EXPECT_EQ(other.find({{CKA_LABEL, "kept"}, {CKA_CLASS, CKO_PRIVATE_KEY}}), Handles{kept});
  is(other.run(sign, CKM_ECDSA, kept, std::string(32, 'h')), CKR_OK);
  is(other.destroy(kept), CKR_OK);
  for (const CK_OBJECT_HANDLE object : other.find({{CKA_LABEL, "kept"}})) is(other.destroy(object), CKR_OK);

  is(other.generate(CKM_EC_KEY_PAIR_GEN, curve, own), CKR_OK);
  const CK_OBJECT_HANDLE original = other.made;
  is(other.copy(original, {{CKA_TOKEN, true}}), CKR_OK);
  is(other.destroy(other.made), CKR_OK);
  is(other.destroy(original), differs(noSuchObject, CKR_OK, "a copy is another key there"));
  is(other.generate(CKM_EC_KEY_PAIR_GEN, curve, own), CKR_OK);
  is(other.create({{CKA_CLASS, CKO_PUBLIC_KEY},
                   {CKA_KEY_TYPE, CKK_EC},
                   {CKA_TOKEN, false},
                   {CKA_PRIVATE, false},
                   {CKA_EC_PARAMS, p256},
                   {CKA_EC_POINT, last.value(ecPublic_, CKA_EC_POINT)}}),
     CKR_OK);
  const CK_OBJECT_HANDLE plain = other.made;
  is(other.init(verify, CKM_ECDSA, other.madePublic), CKR_OK);
  is(f->C_Logout(last), CKR_OK);
  EXPECT_TRUE(last.find({{CKA_PRIVATE, true}}).empty()) << "private objects are hidden";
  is(last.get(rsa_, CKA_CLASS), noSuchObject);
  is(last.init(sign, CKM_RSA_PKCS, rsa_),
     isSoftHsm() ? noSuchKey() : Expected{CKR_KEY_HANDLE_INVALID, CKR_USER_NOT_LOGGED_IN});
  is(last.get(plain, CKA_CLASS), CKR_OK, "public session objects outlive the login");
  is(other.check(std::string(32, 'h'), std::string(64, 's')),
     differs(CKR_KEY_HANDLE_INVALID, CKR_SIGNATURE_INVALID, ""));
  is(other.get(other.madePublic, CKA_EC_POINT), CKR_OK);
  is(last.login(), CKR_OK);
  EXPECT_EQ(last.find({{CKA_PRIVATE, true}}).size(), 2U) << "private session objects ended with the login";
  is(last.get(rsa_, CKA_LABEL), noSuchObject, "handles of private objects end with the login");
  is(last.get(rsaPublic_, CKA_LABEL), CKR_OK);
  is(f->C_CloseAllSessions(slotOf(0)), CKR_OK);
  EXPECT_EQ(Session(0).find({{CKA_TOKEN, false}}), Handles{});
}

}  // namespace
