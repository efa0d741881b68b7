// Mechanisms, digests, signatures, encryption and random numbers: the calls of the device, and what the session keeps.
#include "module_test.h"

namespace {

// All mechanisms, in numbers, so that a wrong constant shows too.
struct MechanismRow {
  CK_MECHANISM_TYPE type;
  CK_ULONG smallest;  // key sizes
  CK_ULONG largest;
  CK_FLAGS flags;
  int hash;          // the device library's code; 0: the data is signed as it is
  int pss;           // 1 for PSS
  int verifiedHash;  // the same for verification in several parts
};

constexpr MechanismRow mechanismRows[] = {
    {0x0, 1024, 4096, 0x10000, 0, 0, 0},  {0x1, 1024, 4096, 0x2B00, 0, 0, 0},   {0x9, 1024, 4096, 0x300, 0, 0, 0},
    {0xD, 1024, 4096, 0x2800, 0, 1, 3},   {0x6, 1024, 4096, 0x2800, 2, 0, 2},   {0x40, 1024, 4096, 0x2800, 3, 0, 3},
    {0x41, 1024, 4096, 0x2800, 4, 0, 4},  {0x42, 1024, 4096, 0x2800, 5, 0, 5},  {0xE, 1024, 4096, 0x2800, 2, 1, 3},
    {0x43, 1024, 4096, 0x2800, 3, 1, 3},  {0x44, 1024, 4096, 0x2800, 4, 1, 3},  {0x45, 1024, 4096, 0x2800, 5, 1, 3},
    {0x1040, 256, 521, 0x10000, 0, 0, 0}, {0x1050, 256, 521, 0x80000, 0, 0, 0}, {0x1041, 256, 521, 0x2800, 0, 0, 0},
    {0x1042, 256, 521, 0x2800, 2, 0, 2},  {0x1044, 256, 521, 0x2800, 3, 0, 3},  {0x1045, 256, 521, 0x2800, 4, 0, 4},
    {0x220, 0, 0, 0x400, 0, 0, 0},        {0x250, 0, 0, 0x400, 0, 0, 0},        {0x260, 0, 0, 0x400, 0, 0, 0},
    {0x270, 0, 0, 0x400, 0, 0, 0}};

class CryptoTest : public SessionTest {
 protected:
  Call signing(CK_MECHANISM_TYPE type) { return signInit(session_, type); }
  // What the device is given as the key when record 1 has this stored public key.
  std::string preparedKey(const std::string& publicKey, std::uint32_t keyType, const std::string& line) {
    fake::edit()->devices[0].keyPairs[0] = fake::keyPair(1, keyType, publicKey, "key");
    ok(verifyInit(session_, CKM_RSA_PKCS));
    const Lines lines = run(verify_);
    EXPECT_EQ(lines[1], line);
    const auto start = lines[2].find(" key=") + 5;
    return lines[2].substr(start, lines[2].find(" signature=") - start);
  }
};

const std::string algorithm = "300D06092A864886F70D0101010500";
const std::string converted = "- Public key is not der need to convert to the der";
// "rsa-modulus", converted.
const std::string derKey = "3026" + algorithm + "0315003012020B7273612D6D6F64756C75730203010001";

std::string signAsked(const std::string& input, int pss = 0, const std::string& keyAndPin = "key-1 pin='1234'") {
  return "> signHash TK1 " + keyAndPin + " input='" + input + "' room=1024 flag=0 inst pss=" + std::to_string(pss);
}
std::string verifyAsked(const std::string& input, const std::string& key, int pss = 0) {
  return "> verifySignatureHash type=2 TK1 input='" + input + "' key=" + key +
         " signature='sig' inst pss=" + std::to_string(pss);
}
std::string mechanismLogged(CK_MECHANISM_TYPE type) { return "- sign echanism : " + std::to_string(type); }

TEST_F(CryptoTest, MechanismsAreTheSameForEverySlot) {
  const CK_SLOT_ID anySlot = 12345;
  std::vector<CK_MECHANISM_TYPE> list(23, 7), expected;
  for (const MechanismRow& row : mechanismRows) expected.push_back(row.type);
  expected.push_back(7);
  CK_ULONG count = 77;
  const auto listed = CALL(C_GetMechanismList, anySlot, list.data(), &count);
  bad(CALL(C_GetMechanismList, anySlot, list.data(), nullptr), ": pulCount is NULL");
  does(CALL(C_GetMechanismList, anySlot, nullptr, &count));
  EXPECT_EQ(count, 22u);
  count = 21;
  expect(listed, CKR_BUFFER_TOO_SMALL, {": buffer too small, *pulCount=21 mechanismCount=22"});
  EXPECT_EQ(count, 21u);
  EXPECT_EQ(list, std::vector<CK_MECHANISM_TYPE>(23, 7));
  count = 22;
  does(listed);
  EXPECT_EQ(list, expected);

  auto logged = [](CK_MECHANISM_TYPE type) { return "- C_GetMechanismInfo -- type : " + std::to_string(type); };
  CK_MECHANISM_INFO info{9, 9, 9};
  bad(CALL(C_GetMechanismInfo, anySlot, 0x1043, nullptr), ": pInfo is NULL");
  for (const CK_MECHANISM_TYPE type : {0x255u, 0x1043u, 0x1046u, 0x46u, 0xFFFFFFFFu}) {
    expect(CALL(C_GetMechanismInfo, anySlot, type, &info), CKR_MECHANISM_INVALID,
           {logged(type), ": unsupported mechanism type=" + std::to_string(type)});
  }
  EXPECT_EQ(hexOf(info), hexOf(CK_MECHANISM_INFO{9, 9, 9}));
  for (const MechanismRow& row : mechanismRows) {
    does(CALL(C_GetMechanismInfo, anySlot, row.type, &info), {logged(row.type), "- C_GetMechanismInfo -- exit"});
    EXPECT_EQ(hexOf(info), hexOf(CK_MECHANISM_INFO{row.smallest, row.largest, row.flags})) << row.type;
  }
}

TEST_F(CryptoTest, DigestsInOneAndInSeveralParts) {
  expect(digestInit(session_, CKM_SHA224), CKR_MECHANISM_INVALID, {"C_DigestInit mechanism not supported"});
  expectNoOperation(CALL(C_DigestUpdate, session_, nullptr, 5));
  int hash = 1;
  for (const CK_MECHANISM_TYPE type : {0x220u, 0x250u, 0x260u, 0x270u}) {
    ++hash;
    CK_MECHANISM mechanism{type, &hash, 3};  // the parameter does not matter
    does(CALL(C_DigestInit, session_, &mechanism), {hashBegun(hash)});
    out_.length = 1;  // nor does the buffer's size
    does(digest_, {hashUpdated(hash - 1, "ab"), hashFinished(hash - 1, 0), "- C_Digest Success"});
    EXPECT_EQ(out_.text(), hashOf(hash, "ab"));
    expectNoOperation(CALL(C_DigestUpdate, session_, nullptr, 0));
  }
  ok(digestInit(session_, CKM_SHA_1));
  does(CALL(C_DigestUpdate, session_, DATA("ab")), {hashUpdated(5, "ab")});
  does(CALL(C_DigestUpdate, session_, DATA("c")), {hashUpdated(5, "c")});
  does(digestFinal_, {hashFinished(5, 0), "- C_DigestFinal Success"});
  EXPECT_EQ(out_.text(), "H2(abc)");
  expectNoOperation(CALL(C_DigestFinal, session_, nullptr, nullptr));
  // Init begins anew during a digest.
  ok(digestInit(session_));
  ok(CALL(C_Digest, session_, DATA("lost"), nullptr, &out_.length));
  ok(digestInit(session_));
  does(digestFinal_, {hashFinished(7, 0), "- C_DigestFinal Success"});
  EXPECT_EQ(out_.text(), "H3()");
}

TEST_F(CryptoTest, PssWantsFirmwareTwo) {
  CK_RSA_PKCS_PSS_PARAMS ignored{CKM_MD5, 99, 99};
  const char* const versions[] = {"2.0.0",    "2.0",   "2.0.0.0", "10.0.0", "2",      "2..0",  " +2.x", "3.-1",
                                  "2.0.0.-1", "1.9.9", "1.10.0",  "",       "v2.0.0", "0x2.0", "2.0.-1"};
  for (const char* const& version : versions) {
    setFirmware(version);
    EXPECT_EQ(signInit(open(), CKM_SHA256_RSA_PKCS_PSS, rsaPrivate, &ignored, sizeof ignored).make(),
              &version - versions < 8 ? CKR_OK : CKR_MECHANISM_INVALID)
        << version;
  }
  // The session keeps the version that the token had when it was opened.
  does(signing(CKM_RSA_PKCS_PSS), {"- firmware veriosn :: 2.1.7", keysListed});
}

// Verification in several parts hashes with SHA-256 for every PSS mechanism, passes the key as it is stored, and never
// uses PSS.
TEST_F(CryptoTest, EverySignatureInOneAndInSeveralParts) {
  int context = 0;
  // The lines of an update and of the hash's end, if there is a hash.
  const auto part = [&](int hash, const std::string& data, bool first = false) {
    if (first && hash != 0) ++context;
    if (hash == 0) return Lines{};
    return (first ? Lines{hashBegun(hash)} : Lines{}) + Lines{hashUpdated(context, data)};
  };
  const auto end = [&](int hash) { return hash != 0 ? Lines{hashFinished(context)} : Lines{}; };
  const auto whole = [&](int hash) {
    const Lines first = part(hash, "ab", true);
    return first + end(hash);
  };
  for (const auto& [type, smallest, largest, flags, hash, pss, verifiedHash] : mechanismRows) {
    if ((flags & CKF_SIGN) == 0) continue;
    const std::string input = hashOf(hash, "ab");
    ok(signing(type));
    does(sign_, Lines{mechanismLogged(type)} + whole(hash) +
                    Lines{"- Sign: password empty=0 hashLen=" + std::to_string(input.size()) + " session state=3",
                          "- Sign input hash : " + hexText(input), signAsked(input, pss)});
    EXPECT_EQ(out_.text(), "S(" + input + ")");
    expectNoOperation(sign_);
    ok(signing(type));
    does(CALL(C_SignUpdate, session_, DATA("a")), part(hash, "a", true));
    does(CALL(C_SignUpdate, session_, DATA("b")), part(hash, "b"));
    does(signFinal_, end(hash) + Lines{signAsked(input, pss)});
    EXPECT_EQ(out_.text(), "S(" + input + ")");
    expectNoOperation(signFinal_);

    ok(verifyInit(session_, type));
    does(verify_, whole(hash) + Lines{converted, verifyAsked(input, derKey, pss)});
    expectNoOperation(verify_);
    ok(verifyInit(session_, type));
    does(CALL(C_VerifyUpdate, session_, DATA("ab")), part(verifiedHash, "ab", true));
    does(CALL(C_VerifyUpdate, session_, DATA("c")), part(verifiedHash, "c"));
    does(verifyFinal_, end(verifiedHash) + Lines{verifyAsked(hashOf(verifiedHash, "abc"), "'rsa-modulus'")});
    expectNoOperation(verifyFinal_);
  }
}

TEST_F(CryptoTest, AnEmptyHashIsSignedToo) {
  ok(signing(CKM_SHA1_RSA_PKCS));
  fake::fault("finalHash", fake::Fault::Kind::length, 0);
  const Lines did = run(sign_);
  EXPECT_EQ(Lines(did.end() - 3, did.end()),
            (Lines{"- Sign input hash : NULL or empty", signAsked(""), returned(CKR_OK)}));
}

// One buffer holds the key pair that was resolved last, by any call.
TEST_F(CryptoTest, DeviceIsGivenTheKeyThatWasResolvedLastAndWithoutLoginNoPassword) {
  ok(C_Logout(session_));
  ok(signing(CKM_RSA_PKCS));
  CK_ULONG size = 0;
  ok(C_GetObjectSize(session_, ecPublic, &size));
  does(sign_, {mechanismLogged(CKM_RSA_PKCS), "- Sign: password empty=1 hashLen=2 session state=2",
               "- Sign input hash : 6162", signAsked("ab", 0, "key-2 pin=''")});
}

// The parts of a signature that C_Sign ended, and the hash of a digest, are kept. Applications may depend on it.
TEST_F(CryptoTest, PartsAndHashesLeftOverAreContinued) {
  auto begin = [&](CK_MECHANISM_TYPE type, const char* part) {
    ok(signing(type));
    ok(C_SignUpdate(session_, bytes(part), 4));
  };
  begin(CKM_RSA_PKCS, "left");
  ok(sign_);
  begin(CKM_ECDSA, "over");
  fake::fail("signHash", 1);
  fails(signFinal_, {signAsked("leftover"), ": signHash failed 1"});
  ok(signing(CKM_ECDSA));
  does(signFinal_, {signAsked("")});

  ok(digestInit(session_));
  ok(digest_);
  ok(signing(CKM_ECDSA));
  does(signFinal_, {signAsked("")});  // the digest itself was returned
  begin(CKM_SHA384_RSA_PKCS, "more");
  ok(signFinal_);
  EXPECT_EQ(out_.text(), "S(H3(abmore))");
  // When a hash cannot be finished, as without any part, the parts are dropped too. One that failed is not continued.
  begin(CKM_RSA_PKCS, "gone");
  ok(sign_);
  ok(signing(CKM_SHA384_RSA_PKCS));
  fails(signFinal_, {"> finalHash ctx=null room=64 inst", ": finalHash failed 9"});
  ok(signing(CKM_RSA_PKCS));
  does(signFinal_, {signAsked("")});
  ok(signing(CKM_SHA384_RSA_PKCS));
  fake::fail("updateHash", 1, 2);
  ok(C_SignUpdate(session_, DATA("lost")));
  EXPECT_EQ(C_SignUpdate(session_, DATA("lost")), CKR_FUNCTION_FAILED);
  begin(CKM_SHA384_RSA_PKCS, "anew");
  ok(signFinal_);
  EXPECT_EQ(out_.text(), "S(H4(anew))");
  // Those of a verification that failed are not kept.
  ok(verifyInit(session_, CKM_RSA_PKCS));
  ok(C_VerifyUpdate(session_, DATA("ab")));
  fake::fail("verifySignatureHash", 1);
  EXPECT_EQ(verifyFinal_.make(), CKR_SIGNATURE_INVALID);
  ok(verifyInit(session_, CKM_ECDSA));
  does(verifyFinal_, {verifyAsked("", "'rsa-modulus'")});
}

TEST_F(CryptoTest, RsaModulusBecomesAPublicKeyInDer) {
  const std::string kept = "- Public key passed as-is";
  const std::string c1(256, '\xC1'), x128(128, 'x');
  EXPECT_EQ(preparedKey(c1, 2, converted),
            "30820122" + algorithm + "0382010F003082010A0282010100" + hexText(c1) + "0203010001");
  EXPECT_EQ(preparedKey(x128, 1, converted),
            "30819E" + algorithm + "03818C00308188028180" + hexText(x128) + "0203010001");
  EXPECT_EQ(preparedKey(std::string("\0\x05", 2), 0, converted), "301D" + algorithm + "030C003009020200050203010001");
  EXPECT_EQ(preparedKey(std::string(1024, 'm'), 8, converted).size(), 2 * (1024 + 37u));
  EXPECT_EQ(preparedKey("0 begins it", 2, kept), "'0 begins it'");
  EXPECT_EQ(preparedKey("", 2, kept), "''");
  for (const std::uint32_t curve : {5u, 6u, 7u}) EXPECT_EQ(preparedKey("\x04point", curve, kept), "04706F696E74");
}

TEST_F(CryptoTest, EncryptionTypeFollowsTheKeyAndPaddingTheMechanism) {
  struct Row {
    std::uint32_t keyType;
    int type;
    std::string publicKey = "rsa-modulus";
    std::string der = derKey;
  };
  // A stored key that is DER already is wrapped all the same.
  const Row rows[] = {
      {1, 7}, {2, 8}, {3, 9}, {5, 8}, {4, 10}, {0, 8}, {2, 8, "0", "301C" + algorithm + "030B0030080201300203010001"}};
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

TEST_F(CryptoTest, DecryptionPassesTheFirstByteOfTheKeysFlag) {
  for (const std::uint32_t flag : {0x100u, 1u}) {
    fake::edit()->devices[0].keyPairs[0].deviceFlag = flag;
    ok(decryptInit(session_));
    does(CALL(C_Decrypt, session_, DATA("ab"), out_.data(), &out_.length),
         {"> decrypt TK1 key-1 pin='1234' data='ab' flag=" + std::to_string(flag & 1) + " inst"});
  }
}

TEST_F(CryptoTest, RandomNumbersAreDrawnInAnyStateAndInTheMiddleOfAnOperation) {
  bad(CALL(C_GenerateRandom, session_, nullptr, 0), ": RandomData is NULL");
  bad(CALL(C_GenerateRandom, session_, out_.data(), 0), ": ulRandomLen<=0, ulRandomLen=0");
  ok(signing(CKM_RSA_PKCS));
  does(CALL(C_GenerateRandom, session_, out_.data(), 4000), {"> generateRamdomNumber TK1 count=4000 flag=1 null"});
  EXPECT_EQ(out_.buffer[3999], 'a' + 3999 % 26);
  EXPECT_EQ(out_.buffer[4000], 0x5A);
  ok(sign_);
  ok(C_Logout(session_));
  ok(C_GenerateRandom(session_, out_.data(), 1));
}

}  // namespace
