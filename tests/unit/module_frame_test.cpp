// The function list, the general calls, what every function refuses first, and what none supports.
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "module/vendor_extensions.h"
#include "module_test.h"

namespace {

// A function with the given slot or session, and zeros otherwise.
template <class First, class... Rest>
Call withZeros(const char* name, CK_RV (*function)(First, Rest...), CK_ULONG first) {
  return {name, [=] {
            if constexpr (std::is_same_v<First, CK_ULONG>) return function(first, Rest{}...);
            return function(First{}, Rest{}...);
          }};
}

std::vector<Call> allFunctions(CK_ULONG first) {
#define ENTRY(name, parameters) withZeros(#name, (name), first),
  return {CRYPTOKI_FUNCTIONS(ENTRY)};
#undef ENTRY
}

const std::string unsupported =
    " C_InitToken C_InitPIN C_GetOperationState C_SetOperationState C_CopyObject C_EncryptUpdate C_EncryptFinal "
    "C_DecryptUpdate C_DecryptFinal C_DigestKey C_SignRecoverInit C_SignRecover C_VerifyRecoverInit C_VerifyRecover "
    "C_DigestEncryptUpdate C_DecryptDigestUpdate C_SignEncryptUpdate C_DecryptVerifyUpdate C_GenerateKey C_WrapKey "
    "C_UnwrapKey C_SeedRandom C_GetFunctionStatus C_CancelFunction ";
const std::string ofNoSession =
    " C_Initialize C_Finalize C_GetInfo C_GetFunctionList C_GetSlotList C_GetSlotInfo C_GetTokenInfo "
    "C_GetMechanismList C_GetMechanismInfo C_OpenSession C_CloseAllSessions C_WaitForSlotEvent ";

// The functions that are, or are not, among the names, called with the given slot or session.
std::vector<Call> functions(bool among, const std::string& names, CK_ULONG first) {
  std::vector<Call> calls = allFunctions(first);
  std::erase_if(calls, [&](const Call& call) { return (names.find(" " + call.name + " ") != names.npos) != among; });
  return calls;
}

using ModuleFrameTest = ModuleTest;

TEST_F(ModuleFrameTest, FunctionListNamesEveryFunctionEvenBeforeInitialization) {
  ok(C_Finalize(nullptr));
  CK_FUNCTION_LIST_PTR list = nullptr;
  CK_FUNCTION_LIST_PTR again = nullptr;
  does(CALL(C_GetFunctionList, &list));
  ok(C_GetFunctionList(&again));
  EXPECT_EQ(list, again);
  EXPECT_EQ(list->version.major, 2);
  EXPECT_EQ(list->version.minor, 20);
#define SAME(name, parameters) EXPECT_EQ(+list->name, &(name)) << #name;
  CRYPTOKI_FUNCTIONS(SAME)
#undef SAME
  bad(CALL(C_GetFunctionList, nullptr), ": ppFunctionList is NULL");
}

TEST_F(ModuleFrameTest, UnsupportedFunctionsCheckNothing) {
  EXPECT_EQ(functions(true, unsupported, 1).size(), 24u);
  for (const bool initialized : {true, false}) {
    if (!initialized) ok(C_Finalize(nullptr));
    for (const Call& call : functions(true, unsupported, 1)) expect(call, CKR_FUNCTION_NOT_SUPPORTED);
    expect(CALL(C_EjectToken, 1), CKR_FUNCTION_NOT_SUPPORTED);
    expect(CALL(C_GetUnmanagedStructSizeList, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    expect(CALL(C_InteractiveLogin, 1), CKR_FUNCTION_NOT_SUPPORTED);
  }
}

TEST_F(ModuleFrameTest, EveryOtherFunctionWantsInitializationAndThenItsSessionBeforeItsArguments) {
  for (const Call& call : functions(false, unsupported + ofNoSession, 0xFFFFFFFF)) {
    Lines lines{": invalid hSession=4294967295"};
    if (call.name == "C_DeriveKey") lines.clear();
    if (call.name == "C_DestroyObject") lines = {"- Delete session state invalid"};
    expect(call, CKR_SESSION_HANDLE_INVALID, lines);
  }
  ok(C_Finalize(nullptr));
  for (const Call& call : functions(false, unsupported + " C_Initialize C_GetFunctionList ", 0)) {
    expect(call, CKR_CRYPTOKI_NOT_INITIALIZED, call.name == "C_DeriveKey" ? Lines{} : Lines{": not initialized"});
  }
}

// Where numbers have 64 bits, handles, slots and mechanisms use 32 of them.
TEST_F(ModuleFrameTest, WiderNumbersAreUnknown) {
  const auto wide = [](CK_ULONG value) { return static_cast<CK_ULONG>(value | std::uint64_t{1} << 32); };
  if (wide(0) == 0) GTEST_SKIP() << "numbers have 32 bits";
  const CK_SESSION_HANDLE session = openLoggedIn();
  const CK_OBJECT_HANDLE secret = derive(session, "x");
  for (const Call& call : functions(false, unsupported + ofNoSession, wide(session))) {
    EXPECT_EQ(call.make(), CKR_SESSION_HANDLE_INVALID) << call.name;
  }
  for (const Call& call :
       functions(true, " C_GetSlotInfo C_GetTokenInfo C_OpenSession C_CloseAllSessions ", wide(slot1))) {
    EXPECT_EQ(call.make(), CKR_SLOT_ID_INVALID) << call.name;
  }
  CK_MECHANISM_INFO info;
  EXPECT_EQ(C_GetMechanismInfo(slot1, wide(CKM_RSA_PKCS), &info), CKR_MECHANISM_INVALID);
  EXPECT_EQ(login(session, wide(CKU_SO)).make(), CKR_USER_TYPE_INVALID);
  EXPECT_EQ(C_SetPIN(session, bytes("1234"), wide(4), bytes("1234"), 4), CKR_PIN_LEN_RANGE);
  for (const Call& call : {signInit(session, wide(CKM_RSA_PKCS)), encryptInit(session, wide(CKM_RSA_PKCS)),
                           digestInit(session, wide(CKM_SHA_1))}) {
    EXPECT_EQ(call.make(), CKR_MECHANISM_INVALID) << call.name;
  }
  CK_ATTRIBUTE attribute{CKA_LABEL, bytes("x"), 1};
  CK_ULONG out = 0;
  for (const CK_OBJECT_HANDLE object : {rsaPrivate, rsaPublic, certificate1, secret}) {
    const CK_OBJECT_HANDLE w = wide(object);
    for (const Call& call :
         {CALL(C_GetAttributeValue, session, w, &attribute, 1), CALL(C_SetAttributeValue, session, w, &attribute, 1),
          CALL(C_GetObjectSize, session, w, &out), CALL(C_DestroyObject, session, w),
          signInit(session, CKM_RSA_PKCS, w), verifyInit(session, CKM_RSA_PKCS, w),
          encryptInit(session, CKM_RSA_PKCS, w), encryptInit(session, CKM_RSA_PKCS_OAEP, w),
          decryptInit(session, CKM_RSA_PKCS, w)}) {
      EXPECT_EQ(call.make(), CKR_OBJECT_HANDLE_INVALID) << call.name << " " << object;
    }
  }
  CK_TOKEN_INFO token;
  ok(C_GetTokenInfo(slot1, &token));
  EXPECT_EQ(token.ulFreePrivateMemory, CK_UNAVAILABLE_INFORMATION);
  EXPECT_EQ(get(session, ecPrivate, CKA_MODULUS_BITS), number(256));
}

TEST_F(ModuleFrameTest, InfoTextsEndInNulAndLeaveTheRestOfTheirFields) {
  CK_INFO info;
  std::memset(&info, 0xFF, sizeof info);
  CK_INFO expected = info;
  expected.cryptokiVersion = {2, 20};
  std::memcpy(expected.manufacturerID, "Quorvane Telemantix", 20);
  expected.flags = 0;
  std::memcpy(expected.libraryDescription, "Tavrin PKCS11 Library", 22);
  expected.libraryVersion = {3, 6};
  does(CALL(C_GetInfo, &info));
  EXPECT_EQ(hexOf(info), hexOf(expected));
  bad(CALL(C_GetInfo, nullptr), ": pInfo is NULL");
}

TEST_F(ModuleFrameTest, InitializeAndFinalizeIgnoreTheirArguments) {
  char tooSmall = 0;
  expect(CALL(C_Initialize, nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED, {": already initialized"});
  does(CALL(C_Finalize, &tooSmall), {"- Monitor thread joined (stopDeviceMonitor).", "> releaseInstance inst",
                                     "- C_Finalize completed successfully."});
  does(CALL(C_Initialize, &tooSmall), {"> createInstance"});
}

TEST_F(ModuleFrameTest, InitializationWithoutInstanceSucceedsAndMayBeRepeated) {
  ok(C_Finalize(nullptr));
  const Lines failed{"> createInstance", "Init pkcs11 library failed failed"};
  const Lines restarted{failed[0], "- Monitor already running. Stopping old thread.",
                        "- Monitor thread joined (stopDeviceMonitor).", failed[1]};
  for (const Lines& lines : {failed, restarted}) {
    fake::fault("createInstance", fake::Fault::Kind::nothing);
    does(CALL(C_Initialize, nullptr), lines);
    EXPECT_EQ(C_GetInfo(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    ASSERT_TRUE(waitForListings(1));
  }
  // At once, when the monitor may not have begun to run.
  for (int i = 0; i < 5; ++i) {
    fake::fault("createInstance", fake::Fault::Kind::nothing);
    ok(C_Initialize(nullptr));
  }
  ok(C_Initialize(nullptr));
  ok(listSlots());
  ok(C_CloseSession(openLoggedIn()));
}

}  // namespace
