// What C_Encrypt and C_Decrypt ask the device library for.
#include "module_test.h"

namespace {

using EncryptDecryptTest = SessionTest;

TEST_F(EncryptDecryptTest, EncryptionTypeFollowsTheKeyAndPaddingTheMechanism) {
  struct Row {
    std::uint32_t keyType;
    std::string publicKey;
    int type;
    std::string der;
  };
  // A stored key that is DER already is wrapped all the same.
  const std::string der = "3026300D06092A864886F70D01010105000315003012020B7273612D6D6F64756C75730203010001";
  const Row rows[] = {{1, "rsa-modulus", 7, der},
                      {2, "rsa-modulus", 8, der},
                      {3, "rsa-modulus", 9, der},
                      {5, "rsa-modulus", 8, der},
                      {4, "rsa-modulus", 10, der},
                      {0, "rsa-modulus", 8, der},
                      {2, "0", 8, "301C300D06092A864886F70D0101010500030B0030080201300203010001"}};
  for (const Row& row : rows) {
    fake::edit()->devices[0].keyPairs[0] = fake::keyPair(1, row.keyType, row.publicKey, "key");
    for (const auto& [mechanism, padding] : {std::pair{CKM_RSA_PKCS, 1}, {CKM_RSA_PKCS_OAEP, 4}}) {
      ok(encryptInit(session_, mechanism));
      does(CALL(C_Encrypt, session_, DATA("ab"), out_.data(), &out_.length),
           {"> encrypt type=" + std::to_string(row.type) + " padding=" + std::to_string(padding) +
            " data='ab' room=0 key=" + row.der + " inst"});
    }
  }
}

TEST_F(EncryptDecryptTest, DecryptionPassesTheKeysFlag) {
  for (const std::uint32_t flag : {1u, 0x100u}) {  // of which the first byte counts
    fake::edit()->devices[0].keyPairs[0].deviceFlag = flag;
    ok(decryptInit(session_));
    does(CALL(C_Decrypt, session_, DATA("ab"), out_.data(), &out_.length),
         {"> decrypt TK1 key-1 pin='1234' data='ab' flag=" + std::to_string(flag & 1) + " inst"});
  }
}

TEST_F(EncryptDecryptTest, PlaintextIsAllThatTheDeviceReturns) {
  const std::string asked = "> decrypt TK1 key-1 pin='1234' data='ab' flag=1 inst";
  const Call call = CALL(C_Decrypt, session_, DATA("ab"), out_.data(), &out_.length);
  ok(decryptInit(session_));
  fake::fault("decrypt", fake::Fault::Kind::length, 4097);
  fails(call, {asked, ": plaintext too long, length=4097"});
  for (const int length : {513, 4096}) {
    fake::fault("decrypt", fake::Fault::Kind::length, length);
    does(call, {asked});
    EXPECT_EQ(out_.length, static_cast<CK_ULONG>(length));
    ok(decryptInit(session_));
  }
}

}  // namespace
