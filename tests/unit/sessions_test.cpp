// The session table, its handles and states, and which call meets which operation in progress.
#include <algorithm>

#include "module_test.h"

namespace {

class SessionsTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    fake::edit()->devices.push_back(fake::device("TK2"));
    ok(listSlots());
  }
};

TEST_F(SessionsTest, OpenRefusals) {
  CK_SESSION_HANDLE session = 7;
  expect(CALL(C_OpenSession, slot1 + 2, 0, nullptr, nullptr, nullptr), CKR_SLOT_ID_INVALID,
         {": invalid slotID=1342177283"});
  expect(CALL(C_OpenSession, slot1, CKF_RW_SESSION, nullptr, nullptr, nullptr), CKR_SESSION_PARALLEL_NOT_SUPPORTED,
         {": CKF_SERIAL_SESSION not set, flags=2"});
  expect(CALL(C_OpenSession, slot1, 0xFFFFFFFB, nullptr, nullptr, &session), CKR_SESSION_PARALLEL_NOT_SUPPORTED,
         {": CKF_SERIAL_SESSION not set, flags=4294967291"});
  bad(CALL(C_OpenSession, slot1, readWrite, nullptr, nullptr, nullptr), ": phSession is NULL");
  EXPECT_EQ(session, 7u);
  expect(CALL(C_CloseAllSessions, slot1 + 2), CKR_SLOT_ID_INVALID, {": invalid slotID=1342177283"});
}

TEST_F(SessionsTest, HandlesAreOneAboveTheHighestOpenOne) {
  CK_SESSION_HANDLE session = 0;
  does(CALL(C_OpenSession, slot1, readWrite | 0x100, &session, nullptr, &session), {"- Opensession  : 1610612737"});
  EXPECT_EQ(session, 0x60000001u);
  EXPECT_EQ(open(readOnly, slot1 + 1), 0x60000002u);
  does(CALL(C_CloseSession, 0x60000002));
  EXPECT_EQ(open(), 0x60000002u);
  ok(C_CloseSession(0x60000001));
  EXPECT_EQ(open(), 0x60000003u);
  EXPECT_EQ(C_CloseSession(0x60000001), CKR_SESSION_HANDLE_INVALID);
  ok(C_CloseSession(0x60000002));
  ok(C_CloseSession(0x60000003));
  EXPECT_EQ(open(), 0x60000001u);
}

TEST_F(SessionsTest, StateFollowsTheFlagsAndTheLoginOfWhateverToken) {
  auto expectInfo = [&](CK_SLOT_ID slot, CK_FLAGS flags, CK_STATE expectedState) {
    CK_SESSION_INFO info{9, 9, 9, 9};
    const CK_SESSION_HANDLE session = open(flags, slot);
    does(CALL(C_GetSessionInfo, session, &info));
    EXPECT_EQ(hexOf(info), hexOf(CK_SESSION_INFO{slot, expectedState, flags, 0}));
  };
  expectInfo(slot1, readOnly, CKS_RO_PUBLIC_SESSION);
  expectInfo(slot1, readWrite, CKS_RW_PUBLIC_SESSION);
  const CK_SESSION_HANDLE session = openLoggedIn();
  for (const CK_SLOT_ID slot : {slot1, slot1 + 1}) {
    expectInfo(slot, readOnly, CKS_RO_USER_FUNCTIONS);
    expectInfo(slot, readWrite, CKS_RW_USER_FUNCTIONS);
  }
  bad(CALL(C_GetSessionInfo, session, nullptr), ": pInfo is NULL");
}

TEST_F(SessionsTest, ClosingSessionsKeepsTheLogin) {
  ok(C_CloseSession(openLoggedIn()));
  EXPECT_EQ(state(open(readOnly)), CKS_RO_USER_FUNCTIONS);
  const CK_SESSION_HANDLE other = open(readOnly, slot1 + 1);
  does(CALL(C_CloseAllSessions, slot1), {"- Close all session"});
  EXPECT_EQ(C_CloseSession(other), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(state(open()), CKS_RW_USER_FUNCTIONS);
}

// Every operation code with every call that asks for one, all other arguments missing: the code is looked at first.
TEST_F(SessionsTest, EveryCallMeetsEveryOperation) {
  const CK_SESSION_HANDLE s = openLoggedIn();
  struct Row {
    Call call;
    std::vector<int> accepted;
    const char* missing;  // what is refused next
  };
  const Row inits[] = {{CALL(C_DigestInit, s, nullptr), {0, 4}, "C_DigestInit mechanism pointer in NULL"},
                       {CALL(C_SignInit, s, nullptr, 0), {0}, ": pMechanism is NULL"},
                       {CALL(C_VerifyInit, s, nullptr, 0), {0}, ": pMechanism is NULL"},
                       {CALL(C_EncryptInit, s, nullptr, 0), {0, 4}, ": pMechanism is NULL"},
                       {CALL(C_DecryptInit, s, nullptr, 0), {0, 4}, ": pMechanism is NULL"}};
  const Row others[] = {
      {CALL(C_FindObjects, s, nullptr, 0, nullptr), {1}, ": pulObjectCount is NULL"},
      {CALL(C_Encrypt, s, DATA(""), nullptr, nullptr), {2}, ": pData is NULL or ulDataLen<=0, ulDataLen=0"},
      {CALL(C_Decrypt, s, nullptr, 0, nullptr, nullptr), {3}, ": pEncryptedData is NULL"},
      {CALL(C_Digest, s, DATA(""), nullptr, nullptr), {4}, ": pData is NULL or ulDataLen<=0, ulDataLen=0"},
      {CALL(C_DigestUpdate, s, DATA("")), {4}, ": pPart is NULL or ulPartLen<=0, ulPartLen=0"},
      {CALL(C_DigestFinal, s, nullptr, nullptr), {4}, ": pulDigestLen is NULL"},
      {CALL(C_Sign, s, nullptr, 0, nullptr, nullptr), {5}, ": pData is NULL"},
      {CALL(C_SignUpdate, s, DATA("")), {5}, ": pPart is NULL or ulPartLen<=0, ulPartLen=0"},
      {CALL(C_SignFinal, s, nullptr, nullptr), {5}, ": pulSignatureLen is NULL"},
      {CALL(C_Verify, s, nullptr, 0, nullptr, 0), {7}, ": pData or pSignature is NULL"},
      {CALL(C_VerifyUpdate, s, DATA("")), {7}, ": pPart is NULL or ulPartLen<=0, ulPartLen=0"},
      {CALL(C_VerifyFinal, s, nullptr, 0), {7}, ": pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=0"}};
  const std::vector<std::pair<int, std::vector<Call>>> operations = {{0, {}},
                                                                     {1, {CALL(C_FindObjectsInit, s, nullptr, 0)}},
                                                                     {2, {encryptInit(s)}},
                                                                     {3, {decryptInit(s)}},
                                                                     {4, {digestInit(s)}},
                                                                     {5, {signInit(s, CKM_RSA_PKCS)}},
                                                                     {7, {verifyInit(s, CKM_RSA_PKCS)}},
                                                                     {9, {digestInit(s), encryptInit(s)}},
                                                                     {10, {digestInit(s), decryptInit(s)}}};
  auto expectMeeting = [&](const Row& row, int code, CK_RV refusal, const char* reason) {
    const bool accepted = std::find(row.accepted.begin(), row.accepted.end(), code) != row.accepted.end();
    if (accepted) bad(row.call, row.missing);
    if (!accepted) expect(row.call, refusal, {reason + std::to_string(code)});
  };
  const char* const missing = ": operation not initialized, activeOperation=";
  for (const auto& [code, begin] : operations) {
    for (const Call& call : begin) ok(call);
    for (const Row& row : inits) {
      expectMeeting(row, code, CKR_OPERATION_ACTIVE, ": operation already active, activeOperation=");
    }
    for (const Row& row : others) expectMeeting(row, code, CKR_OPERATION_NOT_INITIALIZED, missing);
    if (code != 1) {
      expect(CALL(C_FindObjectsFinal, s), CKR_OPERATION_NOT_INITIALIZED, {missing + std::to_string(code)});
    }
    endOperation(s);  // a search replaces any operation, and its end leaves none
    ok(signInit(s, CKM_RSA_PKCS));
    endOperation(s);
  }
}

TEST_F(SessionsTest, ReadOnlyPublicSessionsMayNotUseEveryInit) {
  const CK_SESSION_HANDLE session = open(readOnly);
  ok(C_FindObjectsInit(session, nullptr, 0));  // the state is looked at before the operation
  const Lines refused{": invalid session state=0"};
  expect(CALL(C_DigestInit, session, nullptr), CKR_SESSION_HANDLE_INVALID, refused);
  expect(CALL(C_SignInit, session, nullptr, 0), CKR_SESSION_HANDLE_INVALID, refused);
  expect(CALL(C_DecryptInit, session, nullptr, 0), CKR_SESSION_HANDLE_INVALID, refused);
  ok(C_FindObjectsFinal(session));
  ok(encryptInit(session));
  ok(verifyInit(open(readOnly), CKM_RSA_PKCS));
}

}  // namespace
