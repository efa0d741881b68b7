// C_SignInit, C_Sign, C_SignUpdate and C_SignFinal.
#include "signature_mechanisms.h"

namespace {

class SignTest : public SessionTest {
 protected:
  Call init(CK_MECHANISM_TYPE type) { return signInit(session_, type); }
  Call sign(const char* data, bool query = false) {
    return {"C_Sign", [=, this] {
              const auto length = static_cast<CK_ULONG>(std::string(data).size());
              return C_Sign(session_, bytes(data), length, query ? nullptr : out_.data(), &out_.length);
            }};
  }
  const Call final_ = CALL(C_SignFinal, session_, out_.data(), &out_.length);
  const Call noPart_ = CALL(C_SignUpdate, session_, nullptr, 7);
};

std::string asked(const std::string& input, bool pss = false, const std::string& keyAndPin = "key-1 pin='1234'") {
  return "> signHash TK1 " + keyAndPin + " input='" + input + "' room=1024 flag=0 inst pss=" + (pss ? "1" : "0");
}
std::string mechanismTold(CK_MECHANISM_TYPE type) { return "- sign echanism : " + std::to_string(type); }
Lines inputTold(const std::string& input) {
  return {"- Sign: password empty=0 hashLen=" + std::to_string(input.size()) + " session state=3",
          "- Sign input hash : " + hexText(input)};
}

TEST_F(SignTest, InitRefusals) {
  setFirmware("1.9.9");
  const CK_SESSION_HANDLE session = open();
  CK_BYTE parameter = 0;
  const Lines invalidParameter{": mechanism param invalid for mechanism=64"};
  for (const CK_MECHANISM_TYPE type : {CKM_ECDSA_SHA512, CKM_ECDSA_SHA224, CKM_SHA224_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
    expect(signInit(session, type, 0, &parameter, 1), CKR_MECHANISM_INVALID,
           {": unsupported mechanism=" + std::to_string(type)});
  }
  expect(signInit(session, CKM_SHA256_RSA_PKCS, 0, &parameter, 0), CKR_MECHANISM_PARAM_INVALID, invalidParameter);
  expect(signInit(session, CKM_SHA256_RSA_PKCS, 0, nullptr, 1), CKR_MECHANISM_PARAM_INVALID, invalidParameter);
  expect(signInit(session, CKM_SHA512_RSA_PKCS_PSS, 0, &parameter, 1), CKR_MECHANISM_INVALID,
         {"- firmware veriosn :: 1.9.9", ": CKM_RSA_PKCS_PSS not supported on firmware 1.9.9"});
  noObject(signInit(session, CKM_RSA_PKCS, 0x6FFFFFFF), {": invalid hKey=1879048191"});
  for (const CK_OBJECT_HANDLE key : {CK_OBJECT_HANDLE{0x70000009}, rsaPublic}) {
    noObject(signInit(session, CKM_RSA_PKCS, key),
             {keysListed, "Invalid input handle in sign : " + std::to_string(key)});
  }
  // Record numbers have no upper bound here.
  fake::edit()->devices[0].keyPairs[0].id = 0x1001;
  does(signInit(session, CKM_RSA_PKCS, rsaPublic), {keysListed});
}

TEST_F(SignTest, PssWantsFirmwareTwo) {
  CK_RSA_PKCS_PSS_PARAMS ignored{CKM_MD5, 99, 99};
  auto expectGate = [&](const char* version, CK_RV code) {
    setFirmware(version);
    EXPECT_EQ(signInit(open(), CKM_SHA256_RSA_PKCS_PSS, rsaPrivate, &ignored, sizeof ignored).make(), code) << version;
  };
  for (const char* version : {"2.0.0", "2.0", "2.0.0.0", "10.0.0", "2", "2..0", " +2.x", "3.-1"}) {
    expectGate(version, CKR_OK);
  }
  for (const char* version : {"2.0.0.-1", "1.9.9", "1.10.0", "", "v2.0.0", "0x2.0", "2.0.-1"}) {
    expectGate(version, CKR_MECHANISM_INVALID);
  }
  // The session keeps the version that the token had when it was opened.
  does(init(CKM_RSA_PKCS_PSS), {"- firmware veriosn :: 2.1.7", keysListed});
}

TEST_F(SignTest, ArgumentRefusalsKeepTheOperation) {
  ok(init(CKM_SHA256_RSA_PKCS));
  bad(CALL(C_Sign, session_, DATA(""), out_.data(), nullptr), ": ulDataLen<=0, ulDataLen=0");
  bad(CALL(C_Sign, session_, DATA("x"), out_.data(), nullptr), ": pulSignatureLen is NULL");
  bad(noPart_, ": pPart is NULL or ulPartLen<=0, ulPartLen=7");
  bad(CALL(C_SignFinal, session_, out_.data(), nullptr), ": pulSignatureLen is NULL");
  EXPECT_TRUE(out_.isUntouched());
  ok(sign("x"));
}

TEST_F(SignTest, EveryMechanismInOnePart) {
  int context = 0;
  for (const SignatureMechanism& mechanism : signatureMechanisms) {
    ok(init(mechanism.type));
    const std::string input = hashOf(mechanism.hash, "ab");
    const Lines hashing = mechanism.hash == 0 ? Lines{} : hashed(mechanism.hash, ++context, "ab");
    out_.length = 1;  // the room does not matter
    does(sign("ab"),
         Lines{mechanismTold(mechanism.type)} + hashing + inputTold(input) + Lines{asked(input, mechanism.pss)});
    EXPECT_EQ(out_.text(), "S(" + input + ")");
    expectNoOperation(noPart_);
  }
}

TEST_F(SignTest, EveryMechanismInSeveralParts) {
  int context = 0;
  for (const SignatureMechanism& mechanism : signatureMechanisms) {
    ok(init(mechanism.type));
    const bool hashes = mechanism.hash != 0;
    if (hashes) ++context;
    const std::string input = hashOf(mechanism.hash, "abc");
    does(CALL(C_SignUpdate, session_, DATA("ab")),
         hashes ? Lines{hashBegun(mechanism.hash), hashUpdated(context, "ab")} : Lines{});
    does(CALL(C_SignUpdate, session_, DATA("c")), hashes ? Lines{hashUpdated(context, "c")} : Lines{});
    does(CALL(C_SignFinal, session_, nullptr, &out_.length),
         (hashes ? Lines{hashFinished(context)} : Lines{}) + Lines{asked(input, mechanism.pss)});
    EXPECT_EQ(out_.length, input.size() + 3);
    does(final_);
    EXPECT_EQ(out_.text(), "S(" + input + ")");
    expectNoOperation(noPart_);
  }
}

TEST_F(SignTest, LengthQueryKeepsTheSignatureForTheCallThatFetchesIt) {
  ok(init(CKM_RSA_PKCS));
  ok(sign("ab", true));
  EXPECT_EQ(out_.length, 5u);
  does(sign("other", true), {mechanismTold(CKM_RSA_PKCS)});
  out_.length = 0;
  does(sign("other"), {mechanismTold(CKM_RSA_PKCS)});
  EXPECT_EQ(out_.text(), "S(ab)");
  expectNoOperation(noPart_);
  // A signature that nobody fetched is not the next operation's.
  ok(init(CKM_RSA_PKCS));
  ok(sign("lost", true));
  endOperation(session_);
  ok(init(CKM_RSA_PKCS));
  ok(sign("new"));
  EXPECT_EQ(out_.text(), "S(new)");
}

TEST_F(SignTest, WithoutLoginTheDeviceIsGivenAnEmptyPassword) {
  ok(C_Logout(session_));
  ok(init(CKM_RSA_PKCS));
  does(sign("a"), {mechanismTold(CKM_RSA_PKCS), "- Sign: password empty=1 hashLen=1 session state=2",
                   "- Sign input hash : 61", asked("a", false, "key-1 pin=''")});
}

TEST_F(SignTest, DeviceFailuresEndTheOperation) {
  const CK_MECHANISM_TYPE type = CKM_SHA256_RSA_PKCS;
  auto expectFailure = [&](const char* operation, int status, const Call& call, const Lines& lines) {
    fake::fail(operation, status);
    fails(call, lines);
    expectNoOperation(noPart_);
    ok(init(type));
  };
  ok(init(type));
  const Lines start{mechanismTold(type), hashBegun(3)};
  expectFailure("initHash", 48, sign("ab"), start + Lines{"init hash failed 48"});
  expectFailure("updateHash", -1, sign("ab"), start + Lines{hashUpdated(1, "ab"), "update hash failed -1"});
  expectFailure("finalHash", 2, sign("ab"),
                start + Lines{hashUpdated(2, "ab"), hashFinished(2), "final hash failed 2"});
  expectFailure("signHash", -160, sign("ab"),
                Lines{mechanismTold(type)} + hashed(3, 3, "ab") + inputTold("H3(ab)") +
                    Lines{asked("H3(ab)"), "Sign hash failed : -160"});

  const Call update = CALL(C_SignUpdate, session_, DATA("ab"));
  expectFailure("initHash", 5, update, {hashBegun(3), ": initHash failed 5"});
  expectFailure("updateHash", 6, update, {hashBegun(3), hashUpdated(4, "ab"), ": updateHash failed 6"});
  ok(update);  // into a new hash, since the failure dropped the old one
  expectFailure("finalHash", 7, final_, {hashFinished(5), ": finalHash failed 7"});
  // Without any part, or after a failure, there is no hash to finish.
  expectFailure("finalHash", -9, final_, {"> finalHash ctx=null room=64 inst", ": finalHash failed -9"});
  ok(update);
  expectFailure("signHash", 8, final_, {hashFinished(6), asked("H3(ab)"), ": signHash failed 8"});
  EXPECT_TRUE(out_.isUntouched());
}

// The parts of a signature that C_Sign ended, and the hash of a digest, are kept: that is how it has always been.
TEST_F(SignTest, PartsAndHashesLeftOverAreContinued) {
  ok(init(CKM_RSA_PKCS));
  does(final_, {asked("")});
  ok(init(CKM_RSA_PKCS));
  ok(C_SignUpdate(session_, DATA("left")));
  ok(sign("x"));
  ok(init(CKM_ECDSA));
  ok(C_SignUpdate(session_, DATA("over")));
  fake::fail("signHash", 1);
  fails(final_, {asked("leftover"), ": signHash failed 1"});
  ok(init(CKM_ECDSA));
  does(final_, {asked("")});

  ok(digestInit(session_));
  ok(CALL(C_Digest, session_, DATA("d"), out_.data(), &out_.length));
  ok(init(CKM_ECDSA));
  does(final_, {asked("")});  // the digest itself was handed out
  ok(init(CKM_SHA384_RSA_PKCS));
  does(CALL(C_SignUpdate, session_, DATA("e")), {hashUpdated(1, "e")});
  ok(final_);
  EXPECT_EQ(out_.text(), "S(H3(de))");
  // A hash that cannot be finished takes the parts along.
  ok(init(CKM_RSA_PKCS));
  ok(C_SignUpdate(session_, DATA("gone")));
  ok(sign("x"));
  ok(init(CKM_SHA384_RSA_PKCS));
  EXPECT_EQ(final_.make(), CKR_FUNCTION_FAILED);
  ok(init(CKM_RSA_PKCS));
  does(final_, {asked("")});
}

// One buffer holds the key pair that was resolved last, whatever for.
TEST_F(SignTest, KeyIsTheOneThatWasResolvedLast) {
  ok(init(CKM_RSA_PKCS));
  CK_ULONG size = 0;
  ok(C_GetObjectSize(session_, ecPublic, &size));
  does(sign("a"), Lines{mechanismTold(CKM_RSA_PKCS)} + inputTold("a") + Lines{asked("a", false, "key-2 pin='1234'")});
}

}  // namespace
