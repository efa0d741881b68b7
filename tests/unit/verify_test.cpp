// C_VerifyInit, C_Verify, C_VerifyUpdate and C_VerifyFinal.
#include "signature_mechanisms.h"

namespace {

class VerifyTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    session_ = open(readOnly);
  }
  Call init(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key = rsaPublic) { return verifyInit(session_, type, key); }
  // What the device is given as the key when record 1 has this stored public key.
  std::string preparedKey(const std::string& publicKey, std::uint32_t keyType, const std::string& line) {
    fake::edit()->devices[0].keyPairs[0] = fake::keyPair(1, keyType, publicKey, "key");
    ok(init(CKM_RSA_PKCS));
    const Lines lines = run(verify_);
    EXPECT_EQ(lines[1], line);
    const auto start = lines[2].find(" key=") + 5;
    return lines[2].substr(start, lines[2].find(" signature=") - start);
  }
  CK_SESSION_HANDLE session_ = 0;
  const Call verify_ = CALL(C_Verify, session_, DATA("ab"), DATA("sig"));
  const Call final_ = CALL(C_VerifyFinal, session_, DATA("sig"));
};

const std::string algorithm = "300D06092A864886F70D0101010500";
const std::string converted = "- Public key is not der need to convert to the der";
// "rsa-modulus", converted.
const std::string derKey = "3026" + algorithm + "0315003012020B7273612D6D6F64756C75730203010001";

std::string asked(const std::string& input, const std::string& key, bool pss = false) {
  return "> verifySignatureHash type=2 TK1 input='" + input + "' key=" + key +
         " signature='sig' inst pss=" + (pss ? "1" : "0");
}

// In several parts the hash of every PSS mechanism is SHA-256, the key is passed as it is stored, and PSS is never
// asked for.
TEST_F(VerifyTest, EveryMechanismInOneAndInSeveralParts) {
  int context = 0;
  for (const auto& [type, smallest, largest, flags, wholeHash, pss, hash] : mechanismRows) {
    if ((flags & CKF_VERIFY) == 0) continue;
    ok(init(type));
    const Lines hashing = wholeHash == 0 ? Lines{} : hashed(wholeHash, ++context, "ab");
    does(verify_, hashing + Lines{converted, asked(hashOf(wholeHash, "ab"), derKey, pss)});
    expectNoOperation(verify_);

    ok(init(type));
    const bool hashes = hash != 0;
    if (hashes) ++context;
    does(CALL(C_VerifyUpdate, session_, DATA("ab")),
         hashes ? Lines{hashBegun(hash), hashUpdated(context, "ab")} : Lines{});
    does(CALL(C_VerifyUpdate, session_, DATA("c")), hashes ? Lines{hashUpdated(context, "c")} : Lines{});
    does(final_,
         (hashes ? Lines{hashFinished(context)} : Lines{}) + Lines{asked(hashOf(hash, "abc"), "'rsa-modulus'")});
    expectNoOperation(final_);
  }
}

TEST_F(VerifyTest, PartsDoNotOutliveTheirVerification) {
  ok(init(CKM_RSA_PKCS));
  ok(C_VerifyUpdate(session_, DATA("ab")));
  fake::fail("verifySignatureHash", 1);
  EXPECT_EQ(final_.make(), CKR_SIGNATURE_INVALID);
  ok(init(CKM_ECDSA));
  does(final_, {asked("", "'rsa-modulus'")});
}

TEST_F(VerifyTest, RsaModulusBecomesAPublicKeyInDer) {
  const std::string kept = "- Public key passed as-is";
  const std::string c1(256, '\xC1');
  EXPECT_EQ(preparedKey(c1, 2, converted),
            "30820122" + algorithm + "0382010F003082010A0282010100" + hexText(c1) + "0203010001");
  const std::string x128(128, 'x');
  EXPECT_EQ(preparedKey(x128, 1, converted),
            "30819E" + algorithm + "03818C00308188028180" + hexText(x128) + "0203010001");
  EXPECT_EQ(preparedKey(std::string("\0\x05", 2), 0, converted), "301D" + algorithm + "030C003009020200050203010001");
  EXPECT_EQ(preparedKey(std::string(1024, 'm'), 8, converted).size(), 2 * (1024 + 37u));
  EXPECT_EQ(preparedKey("0 begins it", 2, kept), "'0 begins it'");
  EXPECT_EQ(preparedKey("", 2, kept), "''");
  for (const std::uint32_t curve : {5u, 6u, 7u}) EXPECT_EQ(preparedKey("\x04point", curve, kept), "04706F696E74");
}

}  // namespace
