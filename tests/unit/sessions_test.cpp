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

TEST_F(SessionsTest, HandlesAreOneAboveTheHighestOpenOne) {
  addToken();
  CK_SESSION_HANDLE session = 0;
  does(CALL(C_OpenSession, slot1, readWrite | 0x100, &session, nullptr, &session), {"- Opensession  : 1610612737"});
  EXPECT_EQ(session, 0x60000001u);
  EXPECT_EQ(open(readOnly, slot1 + 1), 0x60000002u);
  does(CALL(C_CloseSession, 0x60000002));
  EXPECT_EQ(open(), 0x60000002u);
  ok(C_CloseSession(0x60000001));
  EXPECT_EQ(open(), 0x60000003u);
  EXPECT_EQ(C_CloseSession(0x60000001), CKR_SESSION_HANDLE_INVALID);
  does(CALL(C_CloseAllSessions, slot1 + 1), {"- Close all session"});
  EXPECT_EQ(C_CloseSession(0x60000003), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(open(), 0x60000001u);
}

TEST_F(SessionsTest, StateFollowsTheFlagsAndTheLoginOfWhateverToken) {
  addToken();
  auto expectInfo = [&](CK_SLOT_ID slot, CK_FLAGS flags, CK_STATE expectedState) {
    CK_SESSION_INFO info{9, 9, 9, 9};
    const CK_SESSION_HANDLE session = open(flags, slot);
    does(CALL(C_GetSessionInfo, session, &info));
    EXPECT_EQ(hexOf(info), hexOf(CK_SESSION_INFO{slot, expectedState, flags, 0}));
  };
  expectInfo(slot1, readOnly, CKS_RO_PUBLIC_SESSION);
  expectInfo(slot1, readWrite, CKS_RW_PUBLIC_SESSION);
  ok(C_CloseSession(openLoggedIn()));  // which keeps the login
  ok(C_CloseAllSessions(slot1));
  for (const CK_SLOT_ID slot : {slot1, slot1 + 1}) {
    expectInfo(slot, readOnly, CKS_RO_USER_FUNCTIONS);
    expectInfo(slot, readWrite, CKS_RW_USER_FUNCTIONS);
  }
}

}  // namespace
