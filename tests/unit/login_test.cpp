// Login, logout and the change of the password.
#include "module_test.h"

namespace {

// The random walk compares the states of all sessions after every login and logout.
using LoginTest = ModuleTest;

// What a login logs, when the session had this state before.
Lines logged(const char* state, const Lines& refusals = {}, const char* result = "0") {
  return Lines{std::string("- Login state : ") + state} + refusals +
         Lines{std::string("- Login end result : ") + result};
}
Lines askedUser(const std::string& pin) { return {"> validatePassword TK1 pin='" + pin + "' kind=1 counter=0 inst"}; }
Lines askedOfficer(const std::string& token) {
  return {"> validatePassword " + token + " pin='1234' kind=2 counter=0 inst"};
}

const std::string longPin(64, '9');
const CK_BYTE_PTR pin = bytes(longPin.c_str());

TEST_F(LoginTest, LoginRefusals) {
  const CK_SESSION_HANDLE session = open();
  for (const CK_USER_TYPE user : {2u, 0xFFFFFFFFu}) {
    expect(CALL(C_Login, session, user, nullptr, 0), CKR_USER_TYPE_INVALID,
           {": unsupported userType=" + std::to_string(user)});
  }
  bad(CALL(C_Login, session, CKU_USER, nullptr, 0), ": pPin is NULL");
  for (const CK_ULONG length : {3u, 64u, 0xFFFFFFFFu}) {
    expect(CALL(C_Login, session, CKU_SO, pin, length), CKR_PIN_LEN_RANGE,
           {": pin length out of range, ulPinLen=" + std::to_string(length)});
  }
  ok(C_Login(session, CKU_USER, pin, 63));
  // A user's session refuses the user before it looks at the PIN.
  for (const CK_SESSION_HANDLE user : {session, open(readOnly)}) {
    expect(CALL(C_Login, user, CKU_USER, nullptr, 0), CKR_USER_ALREADY_LOGGED_IN,
           {"- C_Login: User already logged in"});
  }
}

TEST_F(LoginTest, LoginAsksTheDeviceUnlessThePasswordIsTheCachedOne) {
  addToken();
  const CK_SESSION_HANDLE a = open(readOnly);
  const CK_SESSION_HANDLE other = open(readWrite, slot1 + 1);
  const CK_SESSION_HANDLE b = open(readWrite);
  // The PIN has the given length; the bytes after it do not count.
  does(CALL(C_Login, b, CKU_USER, bytes("12345678"), 4), askedUser("1234") + logged("2"));
  // The cached password opens another token without a device call. The device checks all others, of any length.
  fake::fail("validatePassword", 1);
  fake::edit()->counter = 2;
  expect(login(other, CKU_USER, "4321"), CKR_PIN_INCORRECT,
         {"> validatePassword TK2 pin='4321' kind=1 counter=0 inst", "Token password validation failed : 1",
          "Token password validation failed, retry count : 2"});
  does(login(other, CKU_USER, "12345"),
       Lines{"> validatePassword TK2 pin='12345' kind=1 counter=0 inst"} + logged("2"));
  does(CALL(C_Logout, other), {"- C_Logout end"});
  expect(CALL(C_Logout, other), CKR_USER_NOT_LOGGED_IN, {": user not logged in, session state=2"});
  ok(C_Logout(b));
  expect(CALL(C_Logout, a), CKR_USER_NOT_LOGGED_IN, {": user not logged in, session state=0"});
  ok(login(b));
  does(login(other), logged("2"));
  does(login(other, CKU_SO), askedOfficer("TK2") + logged("3"));  // checked by the device in any case
}

TEST_F(LoginTest, ReadOnlySessionsRefuseTheSecurityOfficerAndTheOthersAreRaised) {
  const std::string refused = ": read-only session exists, cannot log in as SO";
  const std::string another = ": SO already logged in on another session";
  const CK_SESSION_HANDLE officer = open(readWrite);
  for (const CK_FLAGS flags : {readOnly, readWrite, readOnly}) open(flags);
  const auto code = std::to_string(CKR_SESSION_READ_ONLY_EXISTS);
  expect(login(officer, CKU_SO), CKR_SESSION_READ_ONLY_EXISTS,
         askedOfficer("TK1") + logged("2", {refused, refused}, code.c_str()));
  // A user who comes later is refused by the officer's sessions, and logged in all the same.
  expect(login(open(readWrite)), CKR_USER_ANOTHER_ALREADY_LOGGED_IN,
         askedUser("1234") + logged("2", {another, another}, "260"));
}

TEST_F(LoginTest, SetPinRefusals) {
  addToken();
  const CK_SESSION_HANDLE ro = open(readOnly);
  const CK_SESSION_HANDLE rw = open(readWrite, slot1 + 1);
  for (const char* const state : {"0", "1"}) {
    expect(CALL(C_SetPIN, ro, nullptr, 0, nullptr, 0), CKR_SESSION_READ_ONLY,
           {std::string(": session is read-only, state=") + state});
    if (*state == '0') ok(login(ro));
  }
  bad(CALL(C_SetPIN, rw, nullptr, 0, nullptr, 0), ": pOldPin is NULL");
  bad(CALL(C_SetPIN, rw, pin, 63, nullptr, 0), ": pNewPin is NULL");
  for (const CK_ULONG length : {3u, 64u}) {
    const std::string shown = std::to_string(length);
    expect(CALL(C_SetPIN, rw, pin, length, nullptr, 0), CKR_PIN_LEN_RANGE,
           {": old pin length out of range, ulOldLen=" + shown});
    expect(CALL(C_SetPIN, rw, pin, 4, pin, length), CKR_PIN_LEN_RANGE,
           {": new pin length out of range, ulNewLen=" + shown});
  }
}

TEST_F(LoginTest, SetPinChangesTheCachedPasswordOnlyIfThereIsOne) {
  addToken();
  const CK_SESSION_HANDLE session = open();
  const CK_SESSION_HANDLE other = open(readWrite, slot1 + 1);
  const Call setPin = CALL(C_SetPIN, session, bytes("old-pin-and-more"), 7, bytes("new-pin-and-more"), 7);
  const std::string asked = "> changeUserPassword TK1 old='old-pin' new='new-pin' counter=0 flag=0 flag=0 inst";
  does(setPin, {asked});
  ok(login(session, CKU_USER, "old-pin"));
  fake::fail("changeUserPassword", 1);
  EXPECT_EQ(setPin.make(), CKR_FUNCTION_FAILED);
  does(login(other, CKU_USER, "old-pin"), logged("2"));  // still the cached one
  does(setPin, {asked});
  const Lines updated = run(CALL(C_SetAttributeValue, session, rsaPrivate, Template{{CKA_ID, "x"}}.data(), 1));
  EXPECT_EQ(updated[3], "> updateKeyPairDetails TK1 key-1 pin='new-pin' label='' id='x' inst");
}

}  // namespace
