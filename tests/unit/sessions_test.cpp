// The session table, its handles and states.
#include "module_test.h"

namespace {

using SessionsTest = ModuleTest;

TEST_F(SessionsTest, Refusals) {
  const Lines noSlot{": invalid slotID=1342177282"};
  expect(CALL(C_OpenSession, slot1 + 1, 0, nullptr, nullptr, nullptr), CKR_SLOT_ID_INVALID, noSlot);
  expect(CALL(C_CloseAllSessions, slot1 + 1), CKR_SLOT_ID_INVALID, noSlot);
  for (const CK_FLAGS flags : {CK_FLAGS{CKF_RW_SESSION}, CK_FLAGS{0xFFFFFFFB}}) {
    expect(CALL(C_OpenSession, slot1, flags, nullptr, nullptr, nullptr), CKR_SESSION_PARALLEL_NOT_SUPPORTED,
           {": CKF_SERIAL_SESSION not set, flags=" + std::to_string(flags)});
  }
  bad(CALL(C_OpenSession, slot1, readWrite, nullptr, nullptr, nullptr), ": phSession is NULL");
  const CK_SESSION_HANDLE session = open();
  bad(CALL(C_GetSessionInfo, session, nullptr), ": pInfo is NULL");
}

TEST_F(SessionsTest, HandlesAndLines) {
  addToken();
  CK_SESSION_HANDLE session = 0;
  CK_SESSION_INFO info{9, 9, 9, 9};
  does(CALL(C_OpenSession, slot1 + 1, readWrite | 0x100, &session, nullptr, &session), {"- Opensession  : 1610612737"});
  does(CALL(C_GetSessionInfo, session, &info));
  EXPECT_EQ(hexOf(info), hexOf(CK_SESSION_INFO{slot1 + 1, CKS_RW_PUBLIC_SESSION, readWrite, 0}));
  EXPECT_EQ(open(readOnly), 0x60000002u);
  does(CALL(C_CloseSession, session));
  does(CALL(C_CloseAllSessions, slot1), {"- Close all session"});
  EXPECT_EQ(C_CloseSession(0x60000002), CKR_SESSION_HANDLE_INVALID);
}

}  // namespace
