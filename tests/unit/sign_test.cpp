// C_SignInit, C_Sign, C_SignUpdate and C_SignFinal.
#include "signature_mechanisms.h"

namespace {

class SignTest : public SessionTest {
 protected:
  Call init(CK_MECHANISM_TYPE type) { return signInit(session_, type); }
  const Call sign_ = CALL(C_Sign, session_, DATA("ab"), out_.data(), &out_.length);
  const Call final_ = CALL(C_SignFinal, session_, out_.data(), &out_.length);
};

std::string asked(const std::string& input, bool pss = false, const std::string& keyAndPin = "key-1 pin='1234'") {
  return "> signHash TK1 " + keyAndPin + " input='" + input + "' room=1024 flag=0 inst pss=" + (pss ? "1" : "0");
}
std::string mechanismTold(CK_MECHANISM_TYPE type) { return "- sign echanism : " + std::to_string(type); }
Lines inputTold(const std::string& input) {
  return {"- Sign: password empty=0 hashLen=" + std::to_string(input.size()) + " session state=3",
          "- Sign input hash : " + hexText(input)};
}

TEST_F(SignTest, PssWantsFirmwareTwo) {
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
  does(init(CKM_RSA_PKCS_PSS), {"- firmware veriosn :: 2.1.7", keysListed});
}

TEST_F(SignTest, EveryMechanismInOneAndInSeveralParts) {
  int context = 0;
  for (const auto& [type, smallest, largest, flags, hash, pss, verifiedHash] : mechanismRows) {
    if ((flags & CKF_SIGN) == 0) continue;
    const bool hashes = hash != 0;
    const std::string input = hashOf(hash, "ab");
    const Lines hashing = hashes ? hashed(hash, ++context, "ab") : Lines{};
    ok(init(type));
    does(sign_, Lines{mechanismTold(type)} + hashing + inputTold(input) + Lines{asked(input, pss)});
    EXPECT_EQ(out_.text(), "S(" + input + ")");
    expectNoOperation(sign_);

    if (hashes) ++context;
    ok(init(type));
    does(CALL(C_SignUpdate, session_, DATA("a")), hashes ? Lines{hashBegun(hash), hashUpdated(context, "a")} : Lines{});
    does(CALL(C_SignUpdate, session_, DATA("b")), hashes ? Lines{hashUpdated(context, "b")} : Lines{});
    does(final_, (hashes ? Lines{hashFinished(context)} : Lines{}) + Lines{asked(input, pss)});
    EXPECT_EQ(out_.text(), "S(" + input + ")");
    expectNoOperation(final_);
  }
}

TEST_F(SignTest, AnEmptyHashIsSignedToo) {
  ok(init(CKM_SHA1_RSA_PKCS));
  fake::fault("finalHash", fake::Fault::Kind::length, 0);
  const Lines did = run(sign_);
  EXPECT_EQ(Lines(did.end() - 3, did.end()), (Lines{"- Sign input hash : NULL or empty", asked(""), returned(CKR_OK)}));
}

// One buffer holds the key pair that was resolved last, by any call.
TEST_F(SignTest, DeviceIsGivenTheKeyThatWasResolvedLastAndWithoutLoginNoPassword) {
  ok(C_Logout(session_));
  ok(init(CKM_RSA_PKCS));
  CK_ULONG size = 0;
  ok(C_GetObjectSize(session_, ecPublic, &size));
  does(sign_, {mechanismTold(CKM_RSA_PKCS), "- Sign: password empty=1 hashLen=2 session state=2",
               "- Sign input hash : 6162", asked("ab", false, "key-2 pin=''")});
}

// The parts of a signature that C_Sign ended, and the hash of a digest, are kept: that is how it has always been.
TEST_F(SignTest, PartsAndHashesLeftOverAreContinued) {
  auto begin = [&](CK_MECHANISM_TYPE type, const char* part) {
    ok(init(type));
    ok(C_SignUpdate(session_, bytes(part), 4));
  };
  begin(CKM_RSA_PKCS, "left");
  ok(sign_);
  begin(CKM_ECDSA, "over");
  fake::fail("signHash", 1);
  fails(final_, {asked("leftover"), ": signHash failed 1"});
  ok(init(CKM_ECDSA));
  does(final_, {asked("")});

  ok(digestInit(session_));
  ok(CALL(C_Digest, session_, DATA("d"), out_.data(), &out_.length));
  ok(init(CKM_ECDSA));
  does(final_, {asked("")});  // the digest itself was handed out
  begin(CKM_SHA384_RSA_PKCS, "more");
  ok(final_);
  EXPECT_EQ(out_.text(), "S(H3(dmore))");
  // A hash that cannot be finished, as without any part, takes the parts along. One that failed is not continued.
  begin(CKM_RSA_PKCS, "gone");
  ok(sign_);
  ok(init(CKM_SHA384_RSA_PKCS));
  fails(final_, {"> finalHash ctx=null room=64 inst", ": finalHash failed 9"});
  ok(init(CKM_RSA_PKCS));
  does(final_, {asked("")});
  ok(init(CKM_SHA384_RSA_PKCS));
  fake::fail("updateHash", 1, 2);
  ok(C_SignUpdate(session_, DATA("lost")));
  EXPECT_EQ(C_SignUpdate(session_, DATA("lost")), CKR_FUNCTION_FAILED);
  begin(CKM_SHA384_RSA_PKCS, "anew");
  ok(final_);
  EXPECT_EQ(out_.text(), "S(H4(anew))");
}

}  // namespace
