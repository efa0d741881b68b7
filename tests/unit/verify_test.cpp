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
  const Call noPart_ = CALL(C_VerifyUpdate, session_, nullptr, 7);
};

const std::string algorithm = "300D06092A864886F70D0101010500";
const std::string converted = "- Public key is not der need to convert to the der";
// "rsa-modulus", converted.
const std::string derKey = "3026" + algorithm + "0315003012020B7273612D6D6F64756C75730203010001";

std::string asked(const std::string& input, const std::string& key, bool pss = false) {
  return "> verifySignatureHash type=2 TK1 input='" + input + "' key=" + key +
         " signature='sig' inst pss=" + (pss ? "1" : "0");
}

TEST_F(VerifyTest, InitRefusals) {
  setFirmware("1.0.0");
  session_ = open(readOnly);
  for (const CK_MECHANISM_TYPE type : {CKM_ECDSA_SHA512, CKM_RSA_PKCS_OAEP}) {
    expect(init(type, 0), CKR_MECHANISM_INVALID, {": unsupported mechanism=" + std::to_string(type)});
  }
  noObject(init(CKM_SHA384_RSA_PKCS_PSS, 0x6FFFFFFF), {": invalid hKey=1879048191"});
  for (const CK_OBJECT_HANDLE key : {0x70000FFFu, 0x70001FFFu}) {
    noObject(init(CKM_SHA384_RSA_PKCS_PSS, key),
             {keysListed, "Invalid input handle in verify : " + std::to_string(key)});
  }
  expect(init(CKM_SHA384_RSA_PKCS_PSS), CKR_MECHANISM_INVALID,
         {keysListed, ": CKM_RSA_PKCS_PSS not supported on firmware 1.0.0"});
  expectNoOperation(noPart_);
  // A parameter is no matter, either half of the pair will do, and record numbers have no upper bound.
  CK_BYTE parameter = 0;
  does(verifyInit(session_, CKM_RSA_PKCS, rsaPrivate, &parameter, 1), {keysListed});
  does(verify_, {converted, asked("ab", derKey)});
  fake::edit()->devices[0].keyPairs[0].id = 0x1001;
  ok(init(CKM_RSA_PKCS, certificate1));
}

TEST_F(VerifyTest, ArgumentRefusalsKeepTheOperation) {
  CK_BYTE data = 0;
  ok(init(CKM_RSA_PKCS));
  const std::string empty = ": ulDataLen or ulSignatureLen <= 0, ulDataLen=";
  bad(CALL(C_Verify, session_, &data, 0, nullptr, 0), ": pData or pSignature is NULL");
  bad(CALL(C_Verify, session_, nullptr, 0, &data, 0), ": pData or pSignature is NULL");
  bad(CALL(C_Verify, session_, &data, 0, &data, 5), empty + "0 ulSignatureLen=5");
  bad(CALL(C_Verify, session_, &data, 6, &data, 0), empty + "6 ulSignatureLen=0");
  bad(noPart_, ": pPart is NULL or ulPartLen<=0, ulPartLen=7");
  bad(CALL(C_VerifyFinal, session_, nullptr, 8), ": pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=8");
  bad(CALL(C_VerifyFinal, session_, &data, 0), ": pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=0");
  ok(verify_);
}

TEST_F(VerifyTest, EveryMechanismInOnePart) {
  int context = 0;
  for (const SignatureMechanism& mechanism : signatureMechanisms) {
    ok(init(mechanism.type));
    const Lines hashing = mechanism.hash == 0 ? Lines{} : hashed(mechanism.hash, ++context, "ab");
    does(verify_, hashing + Lines{converted, asked(hashOf(mechanism.hash, "ab"), derKey, mechanism.pss)});
    expectNoOperation(noPart_);
  }
}

// The hash of every PSS mechanism is SHA-256, the key is passed as it is stored, and PSS is never asked for.
TEST_F(VerifyTest, EveryMechanismInSeveralParts) {
  int context = 0;
  for (const SignatureMechanism& mechanism : signatureMechanisms) {
    ok(init(mechanism.type));
    const int hash = mechanism.verifiedHash;
    if (hash != 0) ++context;
    does(CALL(C_VerifyUpdate, session_, DATA("ab")),
         hash != 0 ? Lines{hashBegun(hash), hashUpdated(context, "ab")} : Lines{});
    does(CALL(C_VerifyUpdate, session_, DATA("c")), hash != 0 ? Lines{hashUpdated(context, "c")} : Lines{});
    does(final_,
         (hash != 0 ? Lines{hashFinished(context)} : Lines{}) + Lines{asked(hashOf(hash, "abc"), "'rsa-modulus'")});
    expectNoOperation(noPart_);
  }
}

TEST_F(VerifyTest, DeviceFailuresEndTheOperation) {
  auto expectFailure = [&](const char* operation, int status, const Call& call, const Lines& lines,
                           CK_RV code = CKR_FUNCTION_FAILED) {
    fake::fail(operation, status);
    expect(call, code, lines);
    expectNoOperation(noPart_);
    ok(init(CKM_SHA256_RSA_PKCS));
  };
  ok(init(CKM_SHA256_RSA_PKCS));
  expectFailure("initHash", 48, verify_, {hashBegun(3), ": initHash failed ret=48"});
  expectFailure("updateHash", -1, verify_, {hashBegun(3), hashUpdated(1, "ab"), ": updateHash failed ret=-1"});
  expectFailure("finalHash", 2, verify_, hashed(3, 2, "ab") + Lines{": finalHash failed ret=2"});
  expectFailure("verifySignatureHash", -7, verify_,
                hashed(3, 3, "ab") + Lines{converted, asked("H3(ab)", derKey), "Verify signature failed : -7"},
                CKR_SIGNATURE_INVALID);

  const Call update = CALL(C_VerifyUpdate, session_, DATA("ab"));
  expectFailure("initHash", 5, update, {hashBegun(3), ": initHash failed 5"});
  expectFailure("updateHash", 6, update, {hashBegun(3), hashUpdated(4, "ab"), ": updateHash failed 6"});
  ok(update);  // into a new hash, since the failure dropped the old one
  expectFailure("finalHash", 7, final_, {hashFinished(5), ": finalHash failed 7"});
  ok(update);
  expectFailure("verifySignatureHash", 8, final_,
                {hashFinished(6), asked("H3(ab)", "'rsa-modulus'"), ": verify failed 8"}, CKR_SIGNATURE_INVALID);
  // Parts do not outlive their verification either.
  endOperation(session_);
  ok(init(CKM_RSA_PKCS));
  ok(update);
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
