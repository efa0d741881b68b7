// C_GenerateRandom.
#include "module_test.h"

namespace {

using RandomTest = ModuleTest;

TEST_F(RandomTest, IsDrawnInAnyStateAndInTheMiddleOfAnOperation) {
  const CK_SESSION_HANDLE session = open(readOnly);
  Output out;
  bad(CALL(C_GenerateRandom, session, nullptr, 0), ": RandomData is NULL");
  bad(CALL(C_GenerateRandom, session, out.data(), 0), ": ulRandomLen<=0, ulRandomLen=0");
  ok(C_GenerateRandom(session, out.data(), 1));
  ok(login(session));
  ok(signInit(session, CKM_RSA_PKCS));
  does(CALL(C_GenerateRandom, session, out.data(), 4000), {"> generateRamdomNumber TK1 count=4000 flag=1 null"});
  EXPECT_EQ(out.buffer[3999], 'a' + 3999 % 26);
  EXPECT_EQ(out.buffer[4000], 0x5A);
  ok(CALL(C_Sign, session, DATA("x"), out.data(), &out.length));
}

}  // namespace
