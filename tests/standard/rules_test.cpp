// Starting and stopping, slots and tokens, PINs. Sessions and the states of login are in the random walk of the
// standard module, which compares them with a model after every call.
#include <algorithm>
#include <cstring>
#include <set>

#include "client.h"

namespace {

const char unsupported[] = "the token's interface has no such function";

CK_RV create(void** mutex) { return *mutex = nullptr, CKR_OK; }
CK_RV use(void*) { return CKR_OK; }

TEST(General, InitializeChecksItsArgument) {
  int something = 0;
  const struct {
    CK_C_INITIALIZE_ARGS arguments;
    Expected code;
  } rows[] = {{{nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr}, CKR_OK},
              {{create, use, use, use, CKF_OS_LOCKING_OK, nullptr}, CKR_OK},
              {{create, use, use, use, 0, nullptr}, {CKR_OK, CKR_CANT_LOCK}},
              {{nullptr, nullptr, nullptr, nullptr, CKF_LIBRARY_CANT_CREATE_OS_THREADS, nullptr},
               {CKR_OK, CKR_NEED_TO_CREATE_THREADS}},
              {{create, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr}, CKR_ARGUMENTS_BAD},
              {{nullptr, use, use, use, 0, nullptr}, CKR_ARGUMENTS_BAD},
              {{create, use, use, nullptr, 0, nullptr}, CKR_ARGUMENTS_BAD},
              {{nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, &something}, CKR_ARGUMENTS_BAD}};
  for (auto row : rows) {
    const CK_RV code = f->C_Initialize(&row.arguments);
    is(code, row.code, std::to_string(&row - rows));
    is(f->C_Finalize(nullptr), code == CKR_OK ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED);
  }
}

TEST_F(StandardTest, General) {
  CK_INFO info;
  CK_SESSION_INFO sessionInfo;
  CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
  const Session session;
  is(f->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  all(CKR_ARGUMENTS_BAD, {f->C_Finalize(&info), f->C_GetInfo(nullptr), f->C_GetFunctionList(nullptr),
                          f->C_GetSessionInfo(session, nullptr),
                          f->C_OpenSession(slotOf(0), CKF_SERIAL_SESSION, nullptr, nullptr, nullptr),
                          f->C_Login(session, CKU_USER, nullptr, 4), f->C_SetPIN(session, nullptr, 3, nullptr, 3)});
  is(f->C_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.minor * 100 + f->version.minor, 4040);
  EXPECT_EQ(+info.flags, 0U);
  all(CKR_FUNCTION_NOT_PARALLEL, {f->C_GetFunctionStatus(session), f->C_CancelFunction(session)});
  is(f->C_Finalize(nullptr), CKR_OK);
  all(CKR_CRYPTOKI_NOT_INITIALIZED, {f->C_Finalize(nullptr), f->C_GetInfo(&info), f->C_CloseAllSessions(0),
                                     f->C_DigestInit(session, &mechanism), f->C_GenerateRandom(session, nullptr, 0)});
  is(f->C_Initialize(nullptr), CKR_OK);
  is(f->C_GetSessionInfo(session, &sessionInfo), CKR_SESSION_HANDLE_INVALID, "a session of before");
}

template <std::size_t size>
void expectPadded(const CK_BYTE (&text)[size]) {
  EXPECT_EQ(std::count(text, text + size, '\0'), 0) << std::string(reinterpret_cast<const char*>(text), size);
}

TEST_F(StandardTest, Slots) {
  CK_ULONG count = 0, number = 0;
  CK_SLOT_INFO slot{};
  CK_TOKEN_INFO token{};
  CK_MECHANISM_INFO info;
  constexpr CK_SLOT_ID none = 0xFFFFF;
  all(CKR_ARGUMENTS_BAD, {f->C_GetSlotList(CK_TRUE, nullptr, nullptr), f->C_GetSlotInfo(slotOf(0), nullptr),
                          f->C_GetTokenInfo(slotOf(0), nullptr), f->C_GetMechanismList(slotOf(0), nullptr, nullptr),
                          f->C_GetMechanismInfo(slotOf(0), CKM_RSA_PKCS, nullptr)});
  all(CKR_SLOT_ID_INVALID, {f->C_GetSlotInfo(none, &slot), f->C_GetMechanismList(none, nullptr, &count),
                            f->C_GetMechanismInfo(none, CKM_RSA_PKCS, &info), f->C_CloseAllSessions(none)});
  is(f->C_GetSlotList(CK_FALSE, nullptr, &number), CKR_OK);
  is(f->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
  EXPECT_LE(count, number);
  std::vector<CK_SLOT_ID> slots(number, none);
  is(f->C_GetSlotList(CK_TRUE, slots.data(), &(count = 1)), CKR_BUFFER_TOO_SMALL);
  EXPECT_GE(count, 2U) << "the number of slots is written";
  EXPECT_EQ(slots[0], none);
  is(f->C_GetSlotList(CK_FALSE, slots.data(), &number), CKR_OK);
  EXPECT_EQ(std::set<CK_SLOT_ID>(slots.begin(), slots.end()).size(), number) << "each slot once";

  is(f->C_GetSlotInfo(slotOf(0), &slot), CKR_OK);
  expectPadded(slot.slotDescription);
  expectPadded(slot.manufacturerID);
  const Session reader(0), writer;
  is(f->C_GetTokenInfo(slotOf(0), &token), CKR_OK);
  for (const CK_BYTE* text : {token.label, token.manufacturerID}) EXPECT_EQ(std::memchr(text, 0, 32), nullptr);
  expectPadded(token.model);
  expectPadded(token.serialNumber);
  constexpr CK_FLAGS wanted = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
  EXPECT_EQ(token.flags & (wanted | CKF_WRITE_PROTECTED | CKF_USER_PIN_LOCKED | CKF_SO_PIN_LOCKED), wanted);
  EXPECT_EQ(+token.ulRwSessionCount, isSoftHsm() ? CK_UNAVAILABLE_INFORMATION : 1U);
  EXPECT_LE(+token.ulMinPinLen, 4U);

  std::vector<CK_MECHANISM_TYPE> types(200);
  is(f->C_GetMechanismList(slotOf(0), nullptr, &number), CKR_OK);
  is(f->C_GetMechanismList(slotOf(0), types.data(), &(count = number - 1)), CKR_BUFFER_TOO_SMALL);
  is(f->C_GetMechanismList(slotOf(0), types.data(), &count), CKR_OK);
  EXPECT_EQ(count, number);
  for (CK_ULONG i = 0; i < count; ++i) is(f->C_GetMechanismInfo(slotOf(0), types[i], &info), CKR_OK);
  is(f->C_GetMechanismInfo(slotOf(0), CKM_VENDOR_DEFINED | 1, &info), CKR_MECHANISM_INVALID);
  is(f->C_GetMechanismInfo(slotOf(0), CKM_EC_KEY_PAIR_GEN, &info), CKR_OK);
  EXPECT_NE(info.flags & CKF_GENERATE_KEY_PAIR, 0U);

  is(f->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slots[0], nullptr), CKR_NO_EVENT);
  all(differs(CKR_ARGUMENTS_BAD, CKR_NO_EVENT, "it has no events"),
      {f->C_WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr),
       f->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slots[0], &count)});
}

TEST_F(StandardTest, Pins) {
  const Session reader(0, 1);
  Session writer(CKF_RW_SESSION, 1);
  const std::string pin = Session::pinOf(CKU_USER);
  const auto set = [](CK_SESSION_HANDLE session, const std::string& before, const std::string& after) {
    return f->C_SetPIN(session, bytesOf(before), lengthOf(before), bytesOf(after), lengthOf(after));
  };
  const auto isLow = [](CK_FLAGS flag) {
    CK_TOKEN_INFO info{};
    is(f->C_GetTokenInfo(slotOf(1), &info), CKR_OK);
    return (info.flags & flag) != 0;
  };
  is(set(writer, "not the PIN", "123456"), CKR_PIN_INCORRECT);
  EXPECT_TRUE(isLow(CKF_USER_PIN_COUNT_LOW)) << "there was a wrong PIN";
  EXPECT_FALSE(isLow(CKF_SO_PIN_COUNT_LOW));
  is(set(writer, pin, "1234"), CKR_OK, "no login is needed");
  is(writer.login(), CKR_PIN_INCORRECT);
  is(writer.login(CKU_USER, "1234"), CKR_OK);
  EXPECT_FALSE(isLow(CKF_USER_PIN_COUNT_LOW)) << "since the last right one";
  is(set(writer, "1234", pin), CKR_OK);
  EXPECT_EQ(reader.state(), CKS_RO_USER_FUNCTIONS);
  is(Session().login(), CKR_OK);
  is(writer.generate(CKM_EC_KEY_PAIR_GEN, {{CKA_EC_PARAMS, p256}}, {}), CKR_OK, "the new PIN serves this login");
  is(f->C_Logout(writer), CKR_OK);
  is(writer.login(), CKR_OK);
}

TEST_F(StandardTest, WhatTheTokenCannot) {
  const Session session;
  is(session.login(), CKR_OK);
  CK_MECHANISM aes{CKM_AES_KEY_GEN, nullptr, 0}, wrapping{CKM_RSA_PKCS, nullptr, 0};
  Template key{{CKA_CLASS, CKO_SECRET_KEY}, {CKA_VALUE_LEN, 32}, {CKA_TOKEN, false}};
  CK_OBJECT_HANDLE made = 0;
  CK_ULONG length = 0;
  is(f->C_GenerateKey(session, &aes, key.data(), key.size(), &made),
     differs(CKR_FUNCTION_NOT_SUPPORTED, CKR_OK, "no symmetric keys"));
  is(f->C_InitPIN(session, bytesOf("12345678"), 8),
     differs(CKR_FUNCTION_NOT_SUPPORTED, CKR_USER_NOT_LOGGED_IN, unsupported));
  is(f->C_WrapKey(session, &wrapping, 1, 1, nullptr, &length),
     differs(CKR_FUNCTION_NOT_SUPPORTED, CKR_WRAPPING_KEY_HANDLE_INVALID, unsupported));
  is(f->C_UnwrapKey(session, &wrapping, 1, bytesOf("x"), 1, key.data(), key.size(), &made),
     differs(CKR_FUNCTION_NOT_SUPPORTED, CKR_UNWRAPPING_KEY_HANDLE_INVALID, unsupported));
  all(CKR_FUNCTION_NOT_SUPPORTED,
      {f->C_GetOperationState(session, nullptr, &length), f->C_SetOperationState(session, nullptr, 0, 0, 0),
       f->C_SignRecoverInit(session, &wrapping, 1), f->C_DigestEncryptUpdate(session, nullptr, 0, nullptr, &length)});
  is(f->C_DigestKey(session, 1), CKR_OPERATION_NOT_INITIALIZED);
  is(f->C_SeedRandom(session, bytesOf("seed"), 4), differs(CKR_RANDOM_SEED_NOT_SUPPORTED, CKR_OK, "no seed is taken"));
  std::string random(64, '\0'), again = random;
  all(CKR_OK, {f->C_GenerateRandom(session, bytesOf(random), 64), f->C_GenerateRandom(session, bytesOf(again), 64)});
  EXPECT_NE(random, again);
  is(f->C_GenerateRandom(session, nullptr, 4), CKR_ARGUMENTS_BAD);
}

}  // namespace
