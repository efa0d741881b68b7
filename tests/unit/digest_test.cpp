// C_DigestInit, C_Digest, C_DigestUpdate and C_DigestFinal.
#include "signature_mechanisms.h"

namespace {

using DigestTest = SessionTest;

TEST_F(DigestTest, InitRefusals) {
  expect(digestInit(session_, CKM_SHA224), CKR_MECHANISM_INVALID, {"C_DigestInit mechanism not supported"});
  expectNoOperation(CALL(C_DigestUpdate, session_, nullptr, 5));
}

TEST_F(DigestTest, EveryMechanismInOnePart) {
  int hash = 1;
  for (const CK_MECHANISM_TYPE type : {0x220u, 0x250u, 0x260u, 0x270u}) {
    ++hash;
    CK_MECHANISM mechanism{type, &hash, 3};  // the parameter does not matter
    does(CALL(C_DigestInit, session_, &mechanism), {hashBegun(hash)});
    out_.length = 1;  // nor does the room
    does(CALL(C_Digest, session_, DATA("ab"), out_.data(), &out_.length),
         {hashUpdated(hash - 1, "ab"), hashFinished(hash - 1, 0), "- C_Digest Success"});
    EXPECT_EQ(out_.text(), hashOf(hash, "ab"));
    expectNoOperation(CALL(C_DigestUpdate, session_, nullptr, 0));
  }
}

TEST_F(DigestTest, SeveralParts) {
  ok(digestInit(session_, CKM_SHA_1));
  does(CALL(C_DigestUpdate, session_, DATA("ab")), {hashUpdated(1, "ab")});
  does(CALL(C_DigestUpdate, session_, DATA("c")), {hashUpdated(1, "c")});
  does(CALL(C_DigestFinal, session_, out_.data(), &out_.length), {hashFinished(1, 0), "- C_DigestFinal Success"});
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
