// Reading and changing attributes, and the sizes of objects.
#include "module_test.h"

namespace {

class AttributesTest : public ModuleTest {
 protected:
  static Call set(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, const Template& attributes) {
    return {"C_SetAttributeValue",
            [=] { return C_SetAttributeValue(session, object, attributes.data(), attributes.size()); }};
  }
};

TEST_F(AttributesTest, GetRefusals) {
  const CK_SESSION_HANDLE session = openLoggedIn();
  CK_ATTRIBUTE attribute{CKA_CLASS, nullptr, 77};
  const CK_OBJECT_HANDLE unknownSecret = derive(session, "x") + 1;
  bad(CALL(C_GetAttributeValue, session, 0, nullptr, 0), "C_GetAttributeValue template is null");
  expect(CALL(C_GetAttributeValue, session, 0, &attribute, 0), CKR_ARGUMENTS_BAD,
         {"- C_GetAttributeValue count : 0", ": ulCount<=0"});
  using Row = std::tuple<CK_OBJECT_HANDLE, const char*, Lines>;
  for (const auto& [object, reason, asked] :
       {Row{unknownSecret, "C_GetAttributeValue: derived key handle not found=", {}},
        Row{0xFFFFFFFF, "C_GetAttributeValue: derived key handle not found=", {}},
        Row{0x70002FFF, "Certificate not found in get attribute : ", {certificatesListed}},
        Row{0x70000FFF, "Key pair not found in get attribute : ", {keysListed}},
        Row{0x70001FFF, "Key pair not found in get attribute : ", {keysListed}},
        Row{0x70002000, "Input hobject not valid in get attribute : ", {}},
        Row{0x6FFFFFFF, "Input hobject not valid in get attribute : ", {}}}) {
    const CK_OBJECT_HANDLE handle = object;
    noObject(CALL(C_GetAttributeValue, session, handle, &attribute, 1),
             Lines{"- C_GetAttributeValue count : 1"} + asked + Lines{reason + std::to_string(handle)});
  }
  EXPECT_EQ(+attribute.ulValueLen, 77u);
}

TEST_F(AttributesTest, EveryAttributeOfEveryKind) {
  const std::string yes(1, '\1'), no(1, '\0'), none, der = "CN=User|CN=Root|01";
  const std::string e("\1\0\1", 3);
  using Row = std::tuple<std::vector<CK_ATTRIBUTE_TYPE>, std::string, std::string, std::string>;
  const Row rows[] = {{{CKA_CLASS}, number(1), number(3), number(2)},
                      {{CKA_TOKEN, CKA_TRUSTED, CKA_LOCAL}, yes, yes, yes},
                      {{CKA_PRIVATE, CKA_SENSITIVE, CKA_DECRYPT, CKA_SIGN}, no, yes, no},
                      {{CKA_ENCRYPT, CKA_WRAP, CKA_VERIFY_RECOVER, CKA_DERIVE}, no, no, no},
                      {{CKA_VERIFY}, no, no, yes},
                      {{CKA_EXTRACTABLE}, yes, no, yes},
                      {{CKA_MODIFIABLE}, yes, no, no},
                      {{CKA_LABEL}, "Certificate", "RSA key", "EC key"},
                      {{CKA_ID}, "id-1", "id-1", "id-2"},
                      {{CKA_VALUE, CKA_MODULUS}, der, "rsa-modulus", "ec-point"},
                      {{CKA_OBJECT_ID}, number(certificate1), number(rsaPrivate), number(ecPublic)},
                      {{CKA_CERTIFICATE_TYPE}, number(0), number(0), number(0)},
                      {{CKA_KEY_TYPE}, number(0), number(0), number(3)},
                      {{CKA_KEY_GEN_MECHANISM}, number(0), number(0), number(0x1040)},
                      {{CKA_MODULUS_BITS}, number(2048), number(2048), number(256)},
                      {{CKA_PUBLIC_EXPONENT}, e, e, e},
                      {{CKA_ISSUER}, "CN=Root", none, none},
                      {{CKA_SUBJECT}, "CN=User", none, none},
                      {{CKA_SERIAL_NUMBER}, "01", none, none},
                      {{CKA_EC_PARAMS}, none, none, p256},
                      {{CKA_EC_POINT}, none, "\x04\x0Brsa-modulus", std::string("\x04\x08") + "ec-point"},
                      {{CKA_UNWRAP, CKA_SIGN_RECOVER, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}, none, none, none},
                      {{CKA_VALUE_LEN, CKA_NEVER_EXTRACTABLE, 0xFFFFFFFF}, none, none, none}};
  const CK_SESSION_HANDLE session = open(readOnly);
  for (const auto& [types, ofCertificate, ofRsaPrivate, ofEcPublic] : rows) {
    for (const CK_ATTRIBUTE_TYPE type : types) {
      EXPECT_EQ(hexText(get(session, certificate1, type)), hexText(ofCertificate)) << type;
      EXPECT_EQ(hexText(get(session, rsaPrivate, type)), hexText(ofRsaPrivate)) << type;
      EXPECT_EQ(hexText(get(session, ecPublic, type)), hexText(ofEcPublic)) << type;
    }
  }
}

TEST_F(AttributesTest, KeyTypeAndUsageDecideTheAttributesOfAKey) {
  using Row = std::tuple<std::uint32_t, CK_ULONG, std::string>;
  const CK_SESSION_HANDLE session = open();
  for (const auto& [keyType, bits, curve] :
       {Row{1, 1024, ""}, Row{2, 2048, ""}, Row{3, 3072, ""}, Row{4, 4096, ""}, Row{6, 384, "06052B81040022"},
        Row{7, 521, "06052B81040023"}, Row{0, 2048, ""}, Row{8, 2048, ""}, Row{0xFFFFFFFF, 2048, ""}}) {
    fake::edit()->devices[0].keyPairs[0].keyType = keyType;
    EXPECT_EQ(get(session, rsaPublic, CKA_KEY_TYPE), number(curve.empty() ? 0 : 3)) << keyType;
    EXPECT_EQ(get(session, rsaPrivate, CKA_MODULUS_BITS), number(bits)) << keyType;
    EXPECT_EQ(get(session, rsaPrivate, CKA_KEY_GEN_MECHANISM), number(curve.empty() ? 0 : 0x1040)) << keyType;
    EXPECT_EQ(hexText(get(session, rsaPublic, CKA_EC_PARAMS)), curve) << keyType;
  }
  for (std::uint32_t usage = 0; usage < 4; ++usage) {
    fake::edit()->devices[0].keyPairs[0].usage = usage;
    const std::string both{static_cast<char>(usage & 1), static_cast<char>(usage >> 1)};
    EXPECT_EQ(get(session, rsaPrivate, CKA_SIGN) + get(session, rsaPrivate, CKA_DECRYPT), both);
    EXPECT_EQ(get(session, rsaPublic, CKA_VERIFY) + get(session, rsaPublic, CKA_ENCRYPT), both);
    EXPECT_EQ(get(session, rsaPrivate, CKA_VERIFY) + get(session, rsaPublic, CKA_SIGN), std::string(2, '\0'));
  }
}

TEST_F(AttributesTest, EcPointLengthIsOneByteWhateverItIs) {
  const CK_SESSION_HANDLE session = open();
  const std::pair<std::size_t, const char*> rows[] = {
      {127, "047F"}, {128, "048180"}, {133, "048185"}, {256, "048100"}, {1024, "048100"}};
  for (const auto& [length, start] : rows) {
    fake::edit()->devices[0].keyPairs[1] = fake::keyPair(2, 7, std::string(length, 'p'), "EC key");
    EXPECT_EQ(hexText(get(session, ecPrivate, CKA_EC_POINT)), start + hexText(std::string(length, 'p'))) << length;
  }
}

TEST_F(AttributesTest, GetLogsEveryAttributeAndStopsAtTheFirstThatDoesNotFit) {
  const CK_SESSION_HANDLE session = open();
  const Template small{{CKA_ID, Template::nothing}, {CKA_LABEL, "xxx"}, {CKA_SUBJECT, "12345"}};
  expect(CALL(C_GetAttributeValue, session, certificate1, small.data(), small.size()), CKR_BUFFER_TOO_SMALL,
         {"- C_GetAttributeValue count : 3", certificatesListed, "- C_GetAttributeValue type : 258",
          "- C_GetAttributeValue length : 4", "- C_GetAttributeValue type : 3",
          ": buffer too small at index=1 type=3 provided=3 required=11"});
  EXPECT_EQ(small.length(0), 4u);
  EXPECT_EQ(small.value(1) + small.value(2), "xxx12345");
  const Template fitting{
      {CKA_SUBJECT, "xxxxxxx+"}, {CKA_UNWRAP, "left"}, {CKA_SERIAL_NUMBER, "xx"}, {CKA_ISSUER, "1234567"}};
  does(CALL(C_GetAttributeValue, session, certificate1, fitting.data(), fitting.size()),
       {"- C_GetAttributeValue count : 4", certificatesListed, "- C_GetAttributeValue type : 257",
        "> getCertificateSubject 'CN=User|CN=Root|01' null", "- C_GetAttributeValue length : 7",
        "- C_GetAttributeValue type : 263", "- C_GetAttributeValue length : 0", "- C_GetAttributeValue type : 130",
        "> getCertificateSerialDER 'CN=User|CN=Root|01' null", "- C_GetAttributeValue length : 2",
        "- C_GetAttributeValue type : 129", "> getCertificateIssuer 'CN=User|CN=Root|01' null",
        "- C_GetAttributeValue length : 7"});
  EXPECT_EQ(fitting.value(0) + fitting.value(2) + fitting.value(3), "CN=User01CN=Root");
}

TEST_F(AttributesTest, DerivedSecretsHaveOnlyAValue) {
  const CK_SESSION_HANDLE session = openLoggedIn();
  const CK_OBJECT_HANDLE secret = derive(session, "abc");
  EXPECT_NE(get(session, 0x70003000, CKA_VALUE), "");  // this process's first one
  const Lines logged{"- C_GetAttributeValue count : 3"};
  const Template attributes{{CKA_CLASS, "1234"}, {CKA_VALUE, "123456789"}, {CKA_LABEL, Template::nothing}};
  does(CALL(C_GetAttributeValue, session, secret, attributes.data(), 3), logged);
  EXPECT_EQ(attributes.length(0), 0xFFFFFFFFu);
  EXPECT_EQ(attributes.value(1), "Z(abc)");
  EXPECT_EQ(attributes.length(2), 0xFFFFFFFFu);
  const Template small{{CKA_VALUE, "12345"}, {CKA_LABEL, "left"}, {CKA_ID, "x"}};
  expect(CALL(C_GetAttributeValue, session, secret, small.data(), 3), CKR_BUFFER_TOO_SMALL, logged);
  EXPECT_EQ(small.value(0) + small.value(1), "12345left");
}

TEST_F(AttributesTest, SetRefusals) {
  const CK_SESSION_HANDLE session = openLoggedIn(readOnly);
  const Template label{{CKA_LABEL, "new"}};
  bad(CALL(C_SetAttributeValue, session, 0, nullptr, 0), ": pTemplate is NULL");
  bad(CALL(C_SetAttributeValue, session, 0, label.data(), 0), ": ulCount<=0");
  for (const CK_OBJECT_HANDLE object : {0x6FFFFFFFu, 0x70002000u, 0x70002001u, 0x70003000u}) {
    noObject(set(session, object, label), {": invalid hObject=" + std::to_string(object)});
  }
  noObject(set(session, 0x70001FFF, label), {keysListed, "Key pair not found in Set attribute : 1879056383"});
}

TEST_F(AttributesTest, SetGivesTheDeviceLabelAndIdAsTheyAre) {
  const std::string end = "- Set attribute end";
  const std::string label = "- C_SetAttributeValue - attrip type : 3";
  const std::string id = "- C_SetAttributeValue - attrip type : 258";
  const CK_SESSION_HANDLE session = open(readOnly);
  does(set(session, ecPublic, {{CKA_ID, "new-id"}}),
       {keysListed, id, "> updateKeyPairDetails TK1 key-2 pin='' label='' id='new-id' inst", end});
  ok(login(session));
  does(set(session, ecPrivate,
           {{CKA_LABEL, "old"}, {CKA_ID, "i"}, {CKA_LABEL, "new"}, {CKA_LABEL, ""}, {CKA_ID, Template::nothing}}),
       {keysListed, label, id, label, "> updateKeyPairDetails TK1 key-2 pin='1234' label='new' id='i' inst", end});
  does(set(session, ecPrivate, {{CKA_SUBJECT, "x"}, {CKA_LABEL, ""}}),
       {keysListed, "- C_SetAttributeValue - attrip type : 257", end});
}

TEST_F(AttributesTest, ObjectSizes) {
  const CK_SESSION_HANDLE session = openLoggedIn();
  fake::edit()->devices[0].certificates.push_back(fake::certificate(0, "0123456789", "zero"));
  const CK_OBJECT_HANDLE secret = derive(session, "x");
  CK_OBJECT_HANDLE object = 0;
  CK_ULONG size = 77;
  const Call call = CALL(C_GetObjectSize, session, object, &size);
  for (const auto& [missing, kind] : {std::pair<CK_OBJECT_HANDLE, std::string>{0x70000FFF, "Private key"},
                                      {0x70001FFF, "Public key"},
                                      {2, "Certificate"},
                                      {secret, "Certificate"}}) {
    object = missing;
    noObject(call, {kind == "Certificate" ? certificatesListed : keysListed,
                    kind + " not found in get object size : " + std::to_string(missing)});
  }
  EXPECT_EQ(size, 77u);
  for (const auto& [known, expected] :
       {std::pair{rsaPrivate, 22u}, {rsaPublic, 11u}, {certificate1, 18u}, {CK_OBJECT_HANDLE{0x70002000}, 10u}}) {
    object = known;
    does(call, {known < 0x70002000 ? keysListed : certificatesListed});
    EXPECT_EQ(size, expected);
  }
  // Below the certificates the number wraps around, as 32-bit numbers do.
  fake::edit()->devices[0].certificates[0].id = 0x8FFFE002;
  ok(C_GetObjectSize(session, 2, &size));
}

}  // namespace
