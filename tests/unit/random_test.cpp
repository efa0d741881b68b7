// C_GenerateRandom.
#include "module_test.h"

namespace {

using RandomTest = ModuleTest;

TEST_F(RandomTest, Refusals) {
  const CK_SESSION_HANDLE session = open(readOnly);
  CK_BYTE byte = 77;
  bad(CALL(C_GenerateRandom, session, nullptr, 0), ": RandomData is NULL");
  bad(CALL(C_GenerateRandom, session, &byte, 0), ": ulRandomLen<=0, ulRandomLen=0");
  fake::fail("generateRamdomNumber", -2);
  fails(CALL(C_GenerateRandom, session, &byte, 1),
        {"> generateRamdomNumber TK1 count=1 flag=1 null", ": generate random number failed ret=-2"});
  EXPECT_EQ(byte, 77);
}

TEST_F(RandomTest, IsDrawnInAnyStateAndInTheMiddleOfAnOperation) {
  const CK_SESSION_HANDLE session = openLoggedIn();
  Output out;
  ok(signInit(session, CKM_RSA_PKCS));
  does(CALL(C_GenerateRandom, session, out.data(), 4000), {"> generateRamdomNumber TK1 count=4000 flag=1 null"});
  EXPECT_EQ(out.buffer[3999], 'a' + 3999 % 26);
  EXPECT_EQ(out.buffer[4000], 0x5A);
  ok(CALL(C_Sign, session, DATA("x"), out.data(), &out.length));
  EXPECT_EQ(out.text(), "S(x)");
  ok(C_GenerateRandom(open(readOnly), out.data(), 1));
}

}  // namespace
