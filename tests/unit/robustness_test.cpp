// A device library that throws, and records and lengths that lie.
#include <cstring>

#include "module_test.h"
#include "test_platform.h"

namespace {

using Kind = fake::Fault::Kind;

class RobustnessTest : public SessionTest {
 protected:
  std::string get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
    CK_BYTE value[4096];
    CK_ATTRIBUTE attribute{type, value, sizeof value};
    ok(C_GetAttributeValue(session_, object, &attribute, 1));
    return {value, value + attribute.ulValueLen};
  }

  CK_OBJECT_HANDLE handle_ = 0;
  CK_ULONG length_ = 0;
  CK_BYTE byte_ = 0;
  const Call digest_ = CALL(C_Digest, session_, DATA("ab"), nullptr, &length_);
  const Call sign_ = CALL(C_Sign, session_, DATA("ab"), nullptr, &length_);
  const Call verify_ = CALL(C_Verify, session_, DATA("ab"), DATA("sig"));
  const Call encrypt_ = CALL(C_Encrypt, session_, DATA("ab"), nullptr, &length_);
  const Call decrypt_ = CALL(C_Decrypt, session_, DATA("ab"), nullptr, &length_);
};

TEST_F(RobustnessTest, NoExceptionOfTheDeviceLibraryLeavesACall) {
  CK_ATTRIBUTE a{CKA_LABEL, bytes("new"), 3};
  CK_ATTRIBUTE subject{CKA_SUBJECT, nullptr, 0};
  CK_ATTRIBUTE issuer{CKA_ISSUER, nullptr, 0};
  CK_ATTRIBUTE serial{CKA_SERIAL_NUMBER, nullptr, 0};
  CK_ECDH1_DERIVE_PARAMS parameters{CKD_NULL, 0, nullptr, 4, bytes("peer")};
  CK_MECHANISM ecdh{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
  CK_MECHANISM rsa{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  const Template keyTemplate{
      {CKA_CLASS, number(3)}, {CKA_MODULUS, "n"}, {CKA_PRIVATE_EXPONENT, "d"}, {CKA_PRIME_1, "p"}};
  const Template certificateTemplate{{CKA_VALUE, "CN=A|CN=B|1"}};
  const Call createKey = CALL(C_CreateObject, session_, keyTemplate.data(), 4, &handle_);
  const Call createCertificate = CALL(C_CreateObject, session_, certificateTemplate.data(), 1, &handle_);
  const Call list = CALL(C_GetSlotList, CK_TRUE, &handle_, &length_);
  const Call search = CALL(C_FindObjectsInit, session_, nullptr, 0);
  const Call sha = digestInit(session_);
  struct Row {
    const char* operation;
    Call call;
    std::vector<Call> first;
  };
  const Row rows[] = {
      {"getConnectedDeviceList", list, {}},
      {"getTokenInfo", list, {}},
      {"validatePassword", login(session_, CKU_SO), {}},
      {"changeUserPassword", CALL(C_SetPIN, session_, DATA("1234"), DATA("1234")), {}},
      {"getKeyPairList", CALL(C_GetObjectSize, session_, rsaPrivate, &length_), {}},
      {"getCertificateList", CALL(C_GetObjectSize, session_, certificate1, &length_), {}},
      {"getKeyPairList", search, {}},
      {"generateKeyPair", CALL(C_GenerateKeyPair, session_, &rsa, &a, 1, &a, 1, &handle_, &handle_), {}},
      {"updateKeyPairDetails", CALL(C_SetAttributeValue, session_, rsaPrivate, &a, 1), {}},
      {"importPfx", createKey, {}},
      {"getCertificateDetails", createCertificate, {}},
      {"getFilesWithExtensionsAndConvertDER", createCertificate, {}},
      {"importCertificate", createCertificate, {}},
      {"getCertificateSubject", CALL(C_GetAttributeValue, session_, certificate1, &subject, 1), {}},
      {"getCertificateIssuer", CALL(C_GetAttributeValue, session_, certificate1, &issuer, 1), {}},
      {"getCertificateSerialDER", CALL(C_GetAttributeValue, session_, certificate1, &serial, 1), {}},
      {"initHash", sha, {}},
      {"updateHash", digest_, {sha}},
      {"finalHash", digest_, {sha}},
      {"finalHash", sign_, {signInit(session_, CKM_SHA256_RSA_PKCS)}},
      {"signHash", sign_, {signInit(session_, CKM_RSA_PKCS)}},
      {"verifySignatureHash", verify_, {verifyInit(session_, CKM_RSA_PKCS)}},
      {"encrypt", encrypt_, {encryptInit(session_)}},
      {"decrypt", decrypt_, {decryptInit(session_)}},
      {"ecdhDerive", CALL(C_DeriveKey, session_, &ecdh, ecPrivate, nullptr, 0, &handle_), {}},
      {"generateRamdomNumber", CALL(C_GenerateRandom, session_, &byte_, 1), {}},
      {"deleteKeyPair", CALL(C_DestroyObject, session_, ecPrivate), {}},
      {"deleteCertificate", CALL(C_DestroyObject, session_, certificate1), {}},
      {"initDevice", search, {}}};
  testPlatform::setEnvironment("TAVRIN_HOME", "home");
  auto begin = [&](const Row& row) {
    endOperation(session_);
    length_ = 1;
    for (const Call& call : row.first) ok(call);
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.operation);
    if (std::strcmp(row.operation, "initDevice") == 0) fake::edit()->devices[0].certificates.clear();
    for (const auto& [kind, code] :
         {std::pair{Kind::outOfMemory, CKR_HOST_MEMORY}, {Kind::failure, CKR_GENERAL_ERROR}}) {
      begin(row);
      fake::fault(row.operation, kind);
      EXPECT_EQ(row.call.make(), code);
    }
    begin(row);
    ok(row.call);
  }
  testPlatform::setEnvironment("TAVRIN_HOME", nullptr);
}

TEST_F(RobustnessTest, InstancesThatThrowLeaveTheModuleFitForANewStart) {
  for (const auto& [kind, code] : {std::pair{Kind::outOfMemory, CKR_HOST_MEMORY}, {Kind::failure, CKR_GENERAL_ERROR}}) {
    fake::fault("releaseInstance", kind);
    EXPECT_EQ(C_Finalize(nullptr), code);
    C_Finalize(nullptr);
    fake::fault("createInstance", kind);
    EXPECT_EQ(C_Initialize(nullptr), code);
    ok(C_Initialize(nullptr));
    ok(listSlots());
    ok(C_CloseSession(openLoggedIn()));
  }
}

TEST_F(RobustnessTest, RecordsAreReadWithinTheirFields) {
  TavrinKeyPair& key = fake::edit()->devices[0].keyPairs[0];
  TavrinCertificate& certificate = fake::edit()->devices[0].certificates[0];
  std::memset(key.publicKey, 'k', sizeof key.publicKey);
  std::memset(key.keyId, 'i', sizeof key.keyId);
  std::memset(key.label, 'l', sizeof key.label);
  std::memset(certificate.certificate, 'c', sizeof certificate.certificate);
  std::memset(certificate.certId, 'i', sizeof certificate.certId);
  std::memset(certificate.label, 'l', sizeof certificate.label);
  for (const std::uint32_t lie : {0x7FFFFFFFu, 0xFFFFFFFFu, 3073u}) {
    key.publicKeyLength = key.keyIdLength = certificate.certificateLength = certificate.certIdLength = lie;
    EXPECT_EQ(get(rsaPublic, CKA_VALUE), std::string(1024, 'k'));
    EXPECT_EQ(get(rsaPublic, CKA_EC_POINT).size(), 1027u);
    EXPECT_EQ(get(rsaPrivate, CKA_ID), std::string(128, 'i'));
    EXPECT_EQ(get(rsaPrivate, CKA_LABEL), std::string(132, 'l'));
    EXPECT_EQ(get(certificate1, CKA_VALUE), std::string(3072, 'c'));
    EXPECT_EQ(get(certificate1, CKA_ID), std::string(128, 'i'));
    EXPECT_EQ(get(certificate1, CKA_LABEL), std::string(152, 'l'));
    ok(C_GetObjectSize(session_, rsaPrivate, &length_));
    EXPECT_EQ(length_, 2048u);
    ok(C_GetObjectSize(session_, certificate1, &length_));
    EXPECT_EQ(length_, 3072u);
    const Template search{{CKA_CLASS, number(CKO_CERTIFICATE)}, {CKA_LABEL, std::string(152, 'l')}};
    ok(C_FindObjectsInit(session_, search.data(), search.size()));
    ok(C_FindObjects(session_, &handle_, 1, &length_));
    ok(C_FindObjectsFinal(session_));
    EXPECT_EQ(handle_, certificate1);
    ok(verifyInit(session_, CKM_RSA_PKCS));
    ok(verify_);
    ok(encryptInit(session_));
    ok(encrypt_);
    endOperation(session_);
  }
}

TEST_F(RobustnessTest, ReturnedLengthsAreReadWithinTheirBuffers) {
  struct Row {
    const char* operation;
    int length;
    Call init;
    Call call;
    CK_ULONG least;
    CK_ULONG most;
  };
  const Call raw = signInit(session_, CKM_RSA_PKCS);
  const Call hashing = signInit(session_, CKM_SHA256_RSA_PKCS);
  for (const Row& row :
       {Row{"signHash", -1, raw, sign_, 0, 0}, Row{"signHash", 1025, raw, sign_, 1024, 1024},
        Row{"signHash", 0x7FFFFFFF, raw, sign_, 1024, 1024}, Row{"finalHash", -5, hashing, sign_, 3, 3},  // "S()"
        Row{"finalHash", 65, hashing, sign_, 67, 67}, Row{"finalHash", -1, digestInit(session_), digest_, 0, 0},
        Row{"finalHash", 1 << 30, digestInit(session_), digest_, 64, 4096},
        Row{"encrypt", -1, encryptInit(session_), encrypt_, 0, 0},
        Row{"encrypt", 1 << 30, encryptInit(session_), encrypt_, 512, 4096},
        Row{"decrypt", -1, decryptInit(session_), decrypt_, 0, 0}}) {
    fake::fault(row.operation, Kind::length, row.length);
    ok(row.init);
    ok(row.call);
    EXPECT_GE(length_, row.least) << row.operation << " " << row.length;
    EXPECT_LE(length_, row.most) << row.operation << " " << row.length;
    endOperation(session_);
  }
}

}  // namespace
