// Login, logout and the change of the password.
#include "module_test.h"

namespace {

class LoginTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    fake::edit()->devices.push_back(fake::device("TK2"));
    ok(listSlots());
  }
  // Whether a user counts as logged in, which the state of a new session tells.
  bool loggedIn() {
    const CK_SESSION_HANDLE session = open(readOnly, slot1 + 1);
    const bool user = state(session) == CKS_RO_USER_FUNCTIONS;
    ok(C_CloseSession(session));
    return user;
  }
  void expectStates(const std::vector<std::pair<CK_SESSION_HANDLE, CK_STATE>>& sessions) {
    for (const auto& [session, expected] : sessions) EXPECT_EQ(state(session), expected) << session;
  }
};

// What a successful login says, when the session had the state before.
Lines told(const char* state) { return {std::string("- Login state : ") + state, "- Login end result : 0"}; }

const std::string longPin(64, '9');
const CK_BYTE_PTR pin = bytes(longPin.c_str());

TEST_F(LoginTest, LoginRefusals) {
  const CK_SESSION_HANDLE session = open();
  const CK_SESSION_HANDLE other = open(readOnly, slot1 + 1);
  const std::string wrongLength = ": pin length out of range, ulPinLen=";
  expect(CALL(C_Login, session, CKU_CONTEXT_SPECIFIC, nullptr, 0), CKR_USER_TYPE_INVALID, {": unsupported userType=2"});
  expect(CALL(C_Login, session, 0xFFFFFFFF, nullptr, 0), CKR_USER_TYPE_INVALID, {": unsupported userType=4294967295"});
  bad(CALL(C_Login, session, CKU_USER, nullptr, 0), ": pPin is NULL");
  expect(CALL(C_Login, session, CKU_SO, pin, 3), CKR_PIN_LEN_RANGE, {wrongLength + "3"});
  expect(CALL(C_Login, session, CKU_USER, pin, 64), CKR_PIN_LEN_RANGE, {wrongLength + "64"});
  expect(CALL(C_Login, session, CKU_USER, pin, 0xFFFFFFFF), CKR_PIN_LEN_RANGE, {wrongLength + "4294967295"});
  ok(C_Login(session, CKU_USER, pin, 63));
  // A user's session refuses the user before it looks at the PIN, but nobody else.
  const CK_SESSION_HANDLE opened = open(readOnly);
  const Lines already{"- C_Login: User already logged in"};
  expect(CALL(C_Login, session, CKU_USER, nullptr, 0), CKR_USER_ALREADY_LOGGED_IN, already);
  expect(CALL(C_Login, opened, CKU_USER, nullptr, 0), CKR_USER_ALREADY_LOGGED_IN, already);
  EXPECT_EQ(C_Login(session, 7, nullptr, 0), CKR_USER_TYPE_INVALID);
  EXPECT_EQ(C_Login(session, CKU_SO, nullptr, 0), CKR_ARGUMENTS_BAD);
  expectStates({{session, 3}, {other, 0}});
}

TEST_F(LoginTest, LoginAsksTheDeviceAndRaisesTheSessionsOfTheToken) {
  const CK_SESSION_HANDLE a = open(readOnly);
  const CK_SESSION_HANDLE other = open(readWrite, slot1 + 1);
  const CK_SESSION_HANDLE b = open(readWrite);
  // The PIN is as long as the caller says, whatever follows it.
  does(CALL(C_Login, b, CKU_USER, bytes("12345678"), 4),
       Lines{"> validatePassword TK1 pin='1234' kind=1 counter=0 inst"} + told("2"));
  expectStates({{a, 1}, {b, 3}, {other, 2}});

  // The cached password opens another token unasked; any other is asked for.
  does(login(other, CKU_USER, "12345"), Lines{"> validatePassword TK2 pin='12345' kind=1 counter=0 inst"} + told("2"));
  ok(C_Logout(other));
  expectStates({{a, 1}, {b, 3}, {other, 2}});
  EXPECT_FALSE(loggedIn());
  ok(C_Logout(b));
  ok(login(b));
  does(login(other), told("2"));
  // A security officer is always asked for.
  does(login(other, CKU_SO), Lines{"> validatePassword TK2 pin='1234' kind=2 counter=0 inst"} + told("3"));
  expectStates({{a, 1}, {b, 3}, {other, 4}});
}

TEST_F(LoginTest, RefusedPasswordsAreToldByTheCounter) {
  struct Row {
    int status;
    int counter;
    CK_RV code;
    const char* told;
  };
  const Row rows[] = {{1, 2, CKR_PIN_INCORRECT, "2"},
                      {-7, -1, CKR_PIN_INCORRECT, "-1"},
                      {47, 0, CKR_PIN_LOCKED, "0"},
                      {48, 0, CKR_FUNCTION_FAILED, nullptr},
                      {48, 5, CKR_FUNCTION_FAILED, nullptr}};
  const CK_SESSION_HANDLE session = open();
  const CK_SESSION_HANDLE other = open(readWrite, slot1 + 1);
  for (const bool someoneLoggedIn : {false, true}) {
    if (someoneLoggedIn) ok(login(other, CKU_USER, "another"));
    for (const Row& row : rows) {
      fake::fail("validatePassword", row.status);
      fake::edit()->counter = row.counter;
      Lines lines{"> validatePassword TK1 pin='1234' kind=1 counter=0 inst",
                  "Token password validation failed : " + std::to_string(row.status)};
      if (row.told) lines.push_back(std::string("Token password validation failed, retry count : ") + row.told);
      expect(login(session), row.code, lines);
      EXPECT_EQ(state(session), CKS_RW_PUBLIC_SESSION);
      EXPECT_EQ(loggedIn(), someoneLoggedIn);
    }
  }
}

TEST_F(LoginTest, SecurityOfficerIsHeldUpByReadOnlySessionsButRaisesTheOthers) {
  const std::string asked = "> validatePassword TK1 pin='0000' kind=2 counter=0 inst";
  const std::string refused = ": read-only session exists, cannot log in as SO";
  const CK_SESSION_HANDLE a = open(readWrite);
  const CK_SESSION_HANDLE b = open(readOnly);
  const CK_SESSION_HANDLE c = open(readWrite);
  const CK_SESSION_HANDLE d = open(readOnly);
  expect(login(a, CKU_SO, "0000"), CKR_SESSION_READ_ONLY_EXISTS,
         {asked, "- Login state : 2", refused, refused, "- Login end result : 183"});
  expectStates({{a, 4}, {b, 0}, {c, 4}, {d, 0}});
  EXPECT_FALSE(loggedIn());

  // The last refusal in the order of the handles is the result.
  expect(login(a, CKU_SO, "0000"), CKR_SESSION_READ_ONLY_EXISTS,
         {asked, "- Login state : 4", refused, refused, "- Login end result : 183"});
  ok(C_CloseSession(d));
  expect(login(b, CKU_SO, "0000"), CKR_USER_ALREADY_LOGGED_IN,
         {asked, "- Login state : 0", refused, "- Login end result : 256"});
  ok(C_CloseSession(b));
  expect(login(c, CKU_SO, "0000"), CKR_USER_ALREADY_LOGGED_IN,
         {asked, "- Login state : 4", "- Login end result : 256"});

  // A user who comes later is refused by the officer's sessions, and logged in all the same.
  const CK_SESSION_HANDLE e = open(readWrite);
  const CK_SESSION_HANDLE f = open(readOnly);
  const std::string another = ": SO already logged in on another session";
  expect(login(e), CKR_USER_ANOTHER_ALREADY_LOGGED_IN,
         {"> validatePassword TK1 pin='1234' kind=1 counter=0 inst", "- Login state : 2", another, another,
          "- Login end result : 260"});
  expectStates({{a, 4}, {c, 4}, {e, 3}, {f, 1}});
  EXPECT_TRUE(loggedIn());
  // The officer raises a user's sessions too, but for read-only ones.
  expect(login(a, CKU_SO, "0000"), CKR_SESSION_READ_ONLY_EXISTS,
         {asked, "- Login state : 4", refused, "- Login end result : 183"});
  expectStates({{a, 4}, {c, 4}, {e, 4}, {f, 1}});
  EXPECT_TRUE(loggedIn());
}

TEST_F(LoginTest, LogoutLowersTheSessionsOfTheTokenAndForgetsThePassword) {
  const CK_SESSION_HANDLE ro = open(readOnly);
  const CK_SESSION_HANDLE rw = open(readWrite);
  const CK_SESSION_HANDLE other = open(readWrite, slot1 + 1);
  expect(CALL(C_Logout, ro), CKR_USER_NOT_LOGGED_IN, {": user not logged in, session state=0"});
  expect(CALL(C_Logout, rw), CKR_USER_NOT_LOGGED_IN, {": user not logged in, session state=2"});
  ok(login(ro));
  ok(login(other));
  does(CALL(C_Logout, ro), {"- C_Logout end"});
  expectStates({{ro, 0}, {rw, 2}, {other, 3}});
  EXPECT_FALSE(loggedIn());

  // An officer's logout forgets the user's password too.
  ok(C_CloseSession(ro));
  ok(login(rw));
  ok(login(rw, CKU_SO));
  EXPECT_TRUE(loggedIn());
  ok(C_Logout(rw));
  expectStates({{rw, 2}});
  EXPECT_FALSE(loggedIn());
}

TEST_F(LoginTest, SetPinRefusals) {
  const CK_SESSION_HANDLE ro = open(readOnly);
  const CK_SESSION_HANDLE rw = open(readWrite, slot1 + 1);
  const std::string wrongOld = ": old pin length out of range, ulOldLen=";
  const std::string wrongNew = ": new pin length out of range, ulNewLen=";
  expect(CALL(C_SetPIN, ro, nullptr, 0, nullptr, 0), CKR_SESSION_READ_ONLY, {": session is read-only, state=0"});
  ok(login(ro));
  expect(CALL(C_SetPIN, ro, nullptr, 0, nullptr, 0), CKR_SESSION_READ_ONLY, {": session is read-only, state=1"});
  bad(CALL(C_SetPIN, rw, nullptr, 0, nullptr, 0), ": pOldPin is NULL");
  expect(CALL(C_SetPIN, rw, pin, 3, nullptr, 0), CKR_PIN_LEN_RANGE, {wrongOld + "3"});
  expect(CALL(C_SetPIN, rw, pin, 64, nullptr, 0), CKR_PIN_LEN_RANGE, {wrongOld + "64"});
  bad(CALL(C_SetPIN, rw, pin, 63, nullptr, 0), ": pNewPin is NULL");
  expect(CALL(C_SetPIN, rw, pin, 4, pin, 3), CKR_PIN_LEN_RANGE, {wrongNew + "3"});
  expect(CALL(C_SetPIN, rw, pin, 4, pin, 64), CKR_PIN_LEN_RANGE, {wrongNew + "64"});
}

TEST_F(LoginTest, SetPinChangesTheCachedPasswordOnlyIfThereIsOne) {
  const CK_SESSION_HANDLE session = open();
  const CK_SESSION_HANDLE other = open(readWrite, slot1 + 1);
  const Call setPin = CALL(C_SetPIN, session, bytes("old-pin-and-more"), 7, bytes("new-pin-and-more"), 7);
  const std::string asked = "> changeUserPassword TK1 old='old-pin' new='new-pin' counter=0 flag=0 flag=0 inst";
  does(setPin, {asked});
  EXPECT_FALSE(loggedIn());
  ok(login(session, CKU_USER, "old-pin"));
  fake::fail("changeUserPassword", 1);
  EXPECT_EQ(setPin.make(), CKR_FUNCTION_FAILED);
  does(login(other, CKU_USER, "old-pin"), told("2"));  // still the cached one
  does(setPin, {asked});
  expectStates({{session, 3}, {other, 3}});
  const Lines updated = run(CALL(C_SetAttributeValue, session, rsaPrivate, Template{{CKA_ID, "x"}}.data(), 1));
  EXPECT_EQ(updated[3], "> updateKeyPairDetails TK1 key-1 pin='new-pin' label='' id='x' inst");
}

}  // namespace
