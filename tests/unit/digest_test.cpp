// C_DigestInit, C_Digest, C_DigestUpdate and C_DigestFinal.
#include "signature_mechanisms.h"

namespace {

using DigestTest = SessionTest;
const Lines finished{hashFinished(1, 0)};
const Lines success{"- C_Digest Success"};

TEST_F(DigestTest, Refusals) {
  const Call noData = CALL(C_Digest, session_, nullptr, 5, nullptr, nullptr);
  const Call noPart = CALL(C_DigestUpdate, session_, nullptr, 5);
  expect(digestInit(session_, CKM_SHA224), CKR_MECHANISM_INVALID, {"C_DigestInit mechanism not supported"});
  fake::fail("initHash", -48);
  fails(digestInit(session_), {hashBegun(3), "Init hash in diges init failed : -48"});
  expectNoOperation(noPart);
  ok(digestInit(session_));
  bad(noData, ": pData is NULL or ulDataLen<=0, ulDataLen=5");
  bad(CALL(C_Digest, session_, DATA("ab"), out_.data(), nullptr), ": pulDigestLen is NULL");
  bad(noPart, ": pPart is NULL or ulPartLen<=0, ulPartLen=5");
  bad(CALL(C_DigestFinal, session_, out_.data(), nullptr), ": pulDigestLen is NULL");

  // What the device refuses leaves the operation as it was.
  const Lines updated{hashUpdated(1, "ab")};
  const Call digest = CALL(C_Digest, session_, DATA("ab"), out_.data(), &out_.length);
  fake::fail("updateHash", 7);
  fails(digest, updated + Lines{"Update hash data in diget failed : 7"});
  fake::fail("finalHash", -8);
  fails(digest, updated + finished + Lines{"Final hash data in diget failed : -8"});
  fake::fail("updateHash", -1);
  fails(CALL(C_DigestUpdate, session_, DATA("ab")), updated + Lines{"Update hash data in digest update failed : -1"});
  fake::fail("finalHash", 1);
  fails(CALL(C_DigestFinal, session_, out_.data(), &out_.length),
        finished + Lines{"Final hash data in diget failed : 1"});
  EXPECT_TRUE(out_.isUntouched());
  ok(C_DigestUpdate(session_, DATA("x")));
}

TEST_F(DigestTest, EveryMechanismInOnePart) {
  int hash = 1;
  for (const CK_MECHANISM_TYPE type : {0x220u, 0x250u, 0x260u, 0x270u}) {
    ++hash;
    CK_MECHANISM mechanism{type, &hash, 3};  // the parameter does not matter
    does(CALL(C_DigestInit, session_, &mechanism), {hashBegun(hash)});
    out_.length = 1;  // nor does the room
    does(CALL(C_Digest, session_, DATA("ab"), out_.data(), &out_.length),
         Lines{hashUpdated(hash - 1, "ab"), hashFinished(hash - 1, 0)} + success);
    EXPECT_EQ(out_.text(), hashOf(hash, "ab"));
    expectNoOperation(CALL(C_DigestUpdate, session_, nullptr, 0));
  }
}

TEST_F(DigestTest, LengthQueryKeepsTheDigestForTheCallThatFetchesIt) {
  ok(digestInit(session_));
  ok(C_DigestUpdate(session_, DATA("ab")));
  does(CALL(C_Digest, session_, DATA("cd"), nullptr, &out_.length), Lines{hashUpdated(1, "cd")} + finished + success);
  EXPECT_EQ(out_.length, 8u);
  does(CALL(C_Digest, session_, DATA("other"), nullptr, &out_.length), success);
  bad(CALL(C_Digest, session_, nullptr, 0, out_.data(), &out_.length), ": pData is NULL or ulDataLen<=0, ulDataLen=0");
  does(CALL(C_Digest, session_, DATA("other"), out_.data(), &out_.length), success);
  EXPECT_EQ(out_.text(), "H3(abcd)");
  expectNoOperation(CALL(C_Digest, session_, nullptr, 0, nullptr, nullptr));
}

TEST_F(DigestTest, SeveralParts) {
  ok(digestInit(session_, CKM_SHA_1));
  does(CALL(C_DigestUpdate, session_, DATA("ab")), {hashUpdated(1, "ab")});
  does(CALL(C_DigestUpdate, session_, DATA("c")), {hashUpdated(1, "c")});
  does(CALL(C_DigestFinal, session_, nullptr, &out_.length), finished + Lines{"- C_DigestFinal Success"});
  EXPECT_EQ(out_.length, 7u);
  out_.length = 0;
  does(CALL(C_DigestFinal, session_, out_.data(), &out_.length), {"- C_DigestFinal Success"});
  EXPECT_EQ(out_.text(), "H2(abc)");
  expectNoOperation(CALL(C_DigestFinal, session_, nullptr, nullptr));
}

TEST_F(DigestTest, InitBeginsAnewDuringADigest) {
  ok(digestInit(session_));
  ok(CALL(C_Digest, session_, DATA("lost"), nullptr, &out_.length));
  ok(digestInit(session_));
  does(CALL(C_DigestFinal, session_, out_.data(), &out_.length), {hashFinished(2, 0), "- C_DigestFinal Success"});
  EXPECT_EQ(out_.text(), "H3()");
}

}  // namespace
