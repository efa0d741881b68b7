// C_EncryptInit, C_Encrypt, C_DecryptInit and C_Decrypt.
#include "module_test.h"

namespace {

class EncryptDecryptTest : public SessionTest {
 protected:
  Call encrypt(const char* data, bool query = false) {
    return {"C_Encrypt", [=, this] {
              const auto length = static_cast<CK_ULONG>(std::string(data).size());
              return C_Encrypt(session_, bytes(data), length, query ? nullptr : out_.data(), &out_.length);
            }};
  }
  Call decrypt(const char* data, bool query = false) {
    return {"C_Decrypt", [=, this] {
              const auto length = static_cast<CK_ULONG>(std::string(data).size());
              return C_Decrypt(session_, bytes(data), length, query ? nullptr : out_.data(), &out_.length);
            }};
  }
  const Call noData_ = CALL(C_Encrypt, session_, nullptr, 5, nullptr, nullptr);
};

// "rsa-modulus" as a public key in DER.
const std::string derKey = "3026300D06092A864886F70D01010105000315003012020B7273612D6D6F64756C75730203010001";

TEST_F(EncryptDecryptTest, EncryptInitRefusals) {
  CK_BYTE parameter = 0;
  ok(C_Logout(session_));
  setFirmware("1.2.0");
  CK_SESSION_HANDLE s = open(readOnly);
  const Lines invalidParameter{": mechanism param invalid for mechanism=1"};
  expect(encryptInit(s, CKM_RSA_X_509, 0, &parameter, 1), CKR_MECHANISM_INVALID, {": unsupported mechanism=3"});
  expect(encryptInit(s, CKM_RSA_PKCS_OAEP, 0), CKR_MECHANISM_INVALID,
         {": CKM_RSA_PKCS_OAEP not supported on firmware 1.2.0"});
  expect(encryptInit(s, CKM_RSA_PKCS, 0, &parameter, 0), CKR_MECHANISM_PARAM_INVALID, invalidParameter);
  expect(encryptInit(s, CKM_RSA_PKCS, 0, nullptr, 1), CKR_MECHANISM_PARAM_INVALID, invalidParameter);
  noObject(encryptInit(s, CKM_RSA_PKCS, 0x6FFFFFFF), {": invalid hKey=1879048191"});
  for (const CK_OBJECT_HANDLE key : {0x70000009u, 0x70001009u}) {
    noObject(encryptInit(s, CKM_RSA_PKCS, key),
             {keysListed, "Invalid input handle in encrypt : " + std::to_string(key)});
  }
  setFirmware("2.0");
  s = open(readOnly);
  noObject(encryptInit(s, CKM_RSA_PKCS_OAEP, rsaPrivate), {": invalid hKey=1879048193 for CKM_RSA_PKCS_OAEP"});
  noObject(encryptInit(s, CKM_RSA_PKCS_OAEP, 0x70001009),
           {keysListed, ": invalid input handle for OAEP encrypt : 1879052297"});
  expectNoOperation(noData_);
  does(encryptInit(s, CKM_RSA_PKCS_OAEP, rsaPublic, &parameter, 1), {keysListed});
}

TEST_F(EncryptDecryptTest, DecryptInitRefusals) {
  CK_BYTE parameter = 0;
  setFirmware("1.2.0");
  CK_SESSION_HANDLE s = open();
  const Lines invalidParameter{": mechanism param invalid for CKM_RSA_PKCS"};
  expect(decryptInit(s, CKM_RSA_X_509, 0, &parameter, 1), CKR_MECHANISM_INVALID, {": unsupported mechanism=3"});
  expect(decryptInit(s, CKM_RSA_PKCS_OAEP, 0), CKR_MECHANISM_INVALID,
         {"CKM_RSA_PKCS_OAEP not supported on firmware 1.2.0"});
  expect(decryptInit(s, CKM_RSA_PKCS, 0, &parameter, 0), CKR_MECHANISM_PARAM_INVALID, invalidParameter);
  expect(decryptInit(s, CKM_RSA_PKCS, 0, nullptr, 1), CKR_MECHANISM_PARAM_INVALID, invalidParameter);
  noObject(decryptInit(s, CKM_RSA_PKCS, 0x6FFFFFFF), {": invalid hKey=1879048191 for CKM_RSA_PKCS"});
  noObject(decryptInit(s, CKM_RSA_PKCS, rsaPublic), {keysListed, "Invalid input handle in decrypt : 1879052289"});
  setFirmware("2.0");
  s = open();
  noObject(decryptInit(s, CKM_RSA_PKCS_OAEP, 0x6FFFFFFF), {": invalid hKey=1879048191 for CKM_RSA_PKCS_OAEP"});
  noObject(decryptInit(s, CKM_RSA_PKCS_OAEP, rsaPublic),
           {keysListed, "Invalid input handle in decrypt OAEP : 1879052289"});
  expectNoOperation(CALL(C_Decrypt, s, nullptr, 0, nullptr, nullptr));
  does(decryptInit(s, CKM_RSA_PKCS_OAEP, rsaPrivate, &parameter, 1), {keysListed});
}

TEST_F(EncryptDecryptTest, ArgumentRefusalsKeepTheOperation) {
  ok(encryptInit(session_));
  bad(noData_, ": pData is NULL or ulDataLen<=0, ulDataLen=5");
  bad(CALL(C_Encrypt, session_, DATA("x"), out_.data(), nullptr), ": pulEncryptedDataLen is NULL");
  EXPECT_TRUE(out_.isUntouched());
  ok(encrypt("x"));
  out_ = Output();
  ok(decryptInit(session_));
  bad(CALL(C_Decrypt, session_, DATA(""), nullptr, nullptr), ": ulEncryptedDataLen<=0, ulEncryptedDataLen=0");
  bad(CALL(C_Decrypt, session_, DATA("x"), out_.data(), nullptr), ": pulDataLen is NULL");
  EXPECT_TRUE(out_.isUntouched());
  ok(decrypt("x"));
}

TEST_F(EncryptDecryptTest, EncryptionTypeFollowsTheKeyAndPaddingTheMechanism) {
  auto asked = [](int type, int padding, const std::string& key) {
    return "> encrypt type=" + std::to_string(type) + " padding=" + std::to_string(padding) +
           " data='ab' room=0 key=" + key + " inst";
  };
  const std::pair<std::uint32_t, int> rows[] = {{1, 7}, {2, 8}, {3, 9}, {4, 10}, {5, 8}, {0, 8}};
  for (const auto& [keyType, type] : rows) {
    fake::edit()->devices[0].keyPairs[0].keyType = keyType;
    for (const auto& [mechanism, padding] : {std::pair{CKM_RSA_PKCS, 1}, {CKM_RSA_PKCS_OAEP, 4}}) {
      ok(encryptInit(session_, mechanism));
      out_.length = 1;  // the room does not matter
      does(encrypt("ab"), {asked(type, padding, derKey)});
      EXPECT_EQ(out_.text(), "E(ab)");
      expectNoOperation(noData_);
    }
  }
  // A stored key that is DER already is wrapped all the same.
  fake::edit()->devices[0].keyPairs[0] = fake::keyPair(1, 2, "0", "key");
  ok(encryptInit(session_, CKM_RSA_PKCS, rsaPrivate));
  fake::fail("encrypt", -5);
  fails(encrypt("ab"),
        {asked(8, 1, "301C300D06092A864886F70D0101010500030B0030080201300203010001"), "Encrypt data failed : -5"});
  expectNoOperation(noData_);
}

TEST_F(EncryptDecryptTest, LengthQueriesKeepTheResultForTheCallThatFetchesIt) {
  ok(encryptInit(session_));
  ok(encrypt("ab", true));
  EXPECT_EQ(out_.length, 5u);
  does(encrypt("other", true));
  does(encrypt("other"));
  EXPECT_EQ(out_.text(), "E(ab)");
  expectNoOperation(noData_);

  ok(decryptInit(session_));
  does(decrypt("cd", true), {"> decrypt TK1 key-1 pin='1234' data='cd' flag=1 inst"});
  EXPECT_EQ(out_.length, 5u);
  out_.length = 0;
  does(decrypt("other"));
  EXPECT_EQ(out_.text(), "P(cd)");
  expectNoOperation(noData_);

  // A result that nobody fetched is not the next operation's.
  for (const bool encrypting : {true, false}) {
    const Call begin = encrypting ? encryptInit(session_) : decryptInit(session_);
    ok(begin);
    ok(encrypting ? encrypt("lost", true) : decrypt("lost", true));
    endOperation(session_);
    ok(begin);
    ok(encrypting ? encrypt("new") : decrypt("new"));
    EXPECT_EQ(out_.text(), encrypting ? "E(new)" : "P(new)");
  }
}

TEST_F(EncryptDecryptTest, FailedDecryptionMayBeTriedAgain) {
  fake::edit()->devices[0].keyPairs[0].deviceFlag = 0x100;  // of which the first byte counts
  const std::string asked = "> decrypt TK1 key-1 pin='1234' data='ab' flag=0 inst";
  fake::fail("decrypt", 161);
  ok(decryptInit(session_));
  fails(decrypt("ab"), {asked, "Dacrypt data failed : 161"});
  EXPECT_TRUE(out_.isUntouched());
  does(decrypt("ab"), {asked});
  EXPECT_EQ(out_.text(), "P(ab)");
}

}  // namespace
