// Starting and stopping, slots and tokens, sessions, the states of login.
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
    const auto number = std::to_string(&row - rows);
    const CK_RV code = f->C_Initialize(&row.arguments);
    is(code, row.code, number);
    is(f->C_Finalize(nullptr), code == CKR_OK ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED);
  }
}

TEST(General, NothingWorksBeforeInitialize) {
  CK_INFO info;
  CK_SLOT_ID slot = 0;
  CK_ULONG count = 0;
  CK_FUNCTION_LIST* list = nullptr;
  CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
  const auto all = [](CK_RV code) { return code; };
  each(CKR_CRYPTOKI_NOT_INITIALIZED,
       {f->C_Finalize(nullptr), f->C_GetInfo(&info), f->C_GetSlotList(CK_TRUE, nullptr, &count),
        f->C_GetSlotList(CK_TRUE, nullptr, nullptr), f->C_GetMechanismList(0, nullptr, &count),
        f->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &count), f->C_CloseSession(1),
        f->C_CloseAllSessions(0), f->C_Login(1, CKU_USER, nullptr, 0), f->C_FindObjectsInit(1, nullptr, 0),
        f->C_DigestInit(1, &mechanism), f->C_Sign(1, nullptr, 0, nullptr, &count), f->C_GenerateRandom(1, nullptr, 0),
        f->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr)},
       all);
  is(f->C_GetFunctionList(&list), CKR_OK);
  is(f->C_GetFunctionList(nullptr), CKR_ARGUMENTS_BAD);
}

TEST_F(StandardTest, General) {
  CK_INFO info;
  is(f->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  is(f->C_Finalize(&info), CKR_ARGUMENTS_BAD);
  is(f->C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
  is(f->C_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.major, 2);
  EXPECT_EQ(info.cryptokiVersion.minor, 40);
  EXPECT_EQ(f->version.minor, 40);
  EXPECT_EQ(+info.flags, 0U);
  const Session session;
  is(f->C_GetFunctionStatus(session), CKR_FUNCTION_NOT_PARALLEL);
  is(f->C_CancelFunction(session), CKR_FUNCTION_NOT_PARALLEL);
  is(f->C_Finalize(nullptr), CKR_OK);
  is(f->C_Initialize(nullptr), CKR_OK);
  CK_SESSION_INFO sessionInfo;
  is(f->C_GetSessionInfo(session, &sessionInfo), CKR_SESSION_HANDLE_INVALID, "a session of before");
}

template <std::size_t size>
void expectPadded(const CK_BYTE (&text)[size]) {
  EXPECT_EQ(std::count(text, text + size, '\0'), 0) << std::string(reinterpret_cast<const char*>(text), size);
}

TEST_F(StandardTest, Slots) {
  CK_ULONG count = 0, all = 0;
  CK_SLOT_INFO slot{};
  CK_TOKEN_INFO token{};
  CK_MECHANISM_INFO info;
  constexpr CK_SLOT_ID none = 0xFFFFF;
  each(CKR_ARGUMENTS_BAD,
       {f->C_GetSlotList(CK_TRUE, nullptr, nullptr), f->C_GetSlotInfo(slotOf(0), nullptr),
        f->C_GetTokenInfo(slotOf(0), nullptr), f->C_GetMechanismList(slotOf(0), nullptr, nullptr),
        f->C_GetMechanismInfo(slotOf(0), CKM_RSA_PKCS, nullptr)},
       [](CK_RV code) { return code; });
  each(CKR_SLOT_ID_INVALID,
       {f->C_GetSlotInfo(none, &slot), f->C_GetTokenInfo(none, &token), f->C_GetMechanismList(none, nullptr, &count),
        f->C_GetMechanismInfo(none, CKM_RSA_PKCS, &info)},
       [](CK_RV code) { return code; });
  is(f->C_GetSlotList(CK_FALSE, nullptr, &all), CKR_OK);
  is(f->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
  EXPECT_LE(count, all);
  std::vector<CK_SLOT_ID> slots(all, none);
  is(f->C_GetSlotList(CK_TRUE, slots.data(), &(count = 1)), CKR_BUFFER_TOO_SMALL);
  EXPECT_GE(count, 2U) << "the number of slots is told";
  EXPECT_EQ(slots[0], none);
  is(f->C_GetSlotList(CK_TRUE, slots.data(), &(count = 0)), CKR_BUFFER_TOO_SMALL);
  is(f->C_GetSlotList(CK_FALSE, slots.data(), &all), CKR_OK);
  EXPECT_EQ(std::set<CK_SLOT_ID>(slots.begin(), slots.end()).size(), all) << "each slot once";

  is(f->C_GetSlotInfo(slotOf(0), &slot), CKR_OK);
  expectPadded(slot.slotDescription);
  expectPadded(slot.manufacturerID);
  EXPECT_NE(slot.flags & CKF_TOKEN_PRESENT, 0U);
  const Session reader(0), writer;
  is(f->C_GetTokenInfo(slotOf(0), &token), CKR_OK);
  for (const CK_BYTE* text : {token.label, token.manufacturerID}) EXPECT_EQ(std::memchr(text, 0, 32), nullptr);
  expectPadded(token.model);
  expectPadded(token.serialNumber);
  constexpr CK_FLAGS wanted = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
  EXPECT_EQ(token.flags & (wanted | CKF_WRITE_PROTECTED | CKF_USER_PIN_LOCKED | CKF_SO_PIN_LOCKED), wanted);
  if (token.ulSessionCount != CK_UNAVAILABLE_INFORMATION) {
    EXPECT_EQ(+token.ulSessionCount, 2U);
    EXPECT_EQ(+token.ulRwSessionCount, 1U);
  }
  EXPECT_LE(+token.ulMinPinLen, 4U);

  std::vector<CK_MECHANISM_TYPE> types(200);
  is(f->C_GetMechanismList(slotOf(0), nullptr, &count), CKR_OK);
  const CK_ULONG mechanisms = count;
  is(f->C_GetMechanismList(slotOf(0), types.data(), &(count = mechanisms - 1)), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(count, mechanisms);
  is(f->C_GetMechanismList(slotOf(0), types.data(), &count), CKR_OK);
  for (CK_ULONG i = 0; i < count; ++i) is(f->C_GetMechanismInfo(slotOf(0), types[i], &info), CKR_OK);
  is(f->C_GetMechanismInfo(slotOf(0), CKM_VENDOR_DEFINED | 1, &info), CKR_MECHANISM_INVALID);
  is(f->C_GetMechanismInfo(slotOf(0), CKM_EC_KEY_PAIR_GEN, &info), CKR_OK);
  EXPECT_NE(info.flags & CKF_GENERATE_KEY_PAIR, 0U);

  const char noEvents[] = "it has no events";
  is(f->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slots[0], nullptr), CKR_NO_EVENT);
  is(f->C_WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr), differs(CKR_ARGUMENTS_BAD, CKR_NO_EVENT, noEvents));
  is(f->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slots[0], &count), differs(CKR_ARGUMENTS_BAD, CKR_NO_EVENT, noEvents));
}

// The random walk compares who is logged in, in every session and after every call.
TEST_F(StandardTest, SessionsAndLogin) {
  CK_SESSION_HANDLE handle = 0;
  CK_SESSION_INFO info;
  is(f->C_OpenSession(slotOf(0), CKF_RW_SESSION, nullptr, nullptr, &handle), CKR_SESSION_PARALLEL_NOT_SUPPORTED);
  is(f->C_OpenSession(slotOf(0), CKF_SERIAL_SESSION, nullptr, nullptr, nullptr), CKR_ARGUMENTS_BAD);
  is(f->C_OpenSession(0xFFFFF, CKF_SERIAL_SESSION, nullptr, nullptr, &handle), CKR_SLOT_ID_INVALID);
  is(f->C_CloseAllSessions(0xFFFFF), CKR_SLOT_ID_INVALID);
  const Session reader(0), writer, other(CKF_RW_SESSION, 1);
  is(f->C_GetSessionInfo(reader, nullptr), CKR_ARGUMENTS_BAD);
  is(f->C_GetSessionInfo(reader, &info), CKR_OK);
  EXPECT_EQ(+info.slotID, slotOf(0));
  EXPECT_EQ(+info.flags, CKF_SERIAL_SESSION);
  is(f->C_Logout(reader), differs(CKR_USER_NOT_LOGGED_IN, CKR_OK, "its logout has no state to check"));
  is(reader.login(7), CKR_USER_TYPE_INVALID);
  is(f->C_Login(reader, CKU_USER, nullptr, 4), CKR_ARGUMENTS_BAD);
  is(reader.login(CKU_USER, "not the PIN"), CKR_PIN_INCORRECT);
  is(reader.login(CKU_USER, "x"), {CKR_PIN_INCORRECT, CKR_PIN_LEN_RANGE});
  is(writer.login(CKU_SO, Session::pinOf(CKU_SO)), CKR_SESSION_READ_ONLY_EXISTS);
  is(reader.login(), CKR_OK, "a read-only session will do");
  EXPECT_EQ(reader.state(), CKS_RO_USER_FUNCTIONS);
  EXPECT_EQ(writer.state(), CKS_RW_USER_FUNCTIONS);
  EXPECT_EQ(other.state(), CKS_RW_PUBLIC_SESSION) << "each token has its login";
  is(writer.login(CKU_USER, "not the PIN"), CKR_USER_ALREADY_LOGGED_IN);
  is(writer.login(CKU_SO, Session::pinOf(CKU_SO)), {CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKR_SESSION_READ_ONLY_EXISTS});
  is(f->C_CloseAllSessions(slotOf(0)), CKR_OK);
  is(f->C_GetSessionInfo(writer, &info), CKR_SESSION_HANDLE_INVALID);
  is(f->C_GetSessionInfo(other, &info), CKR_OK, "sessions of another token stay");

  const Session officer;
  EXPECT_EQ(officer.state(), CKS_RW_PUBLIC_SESSION) << "the last session's end is a logout";
  EXPECT_GT(officer.handle, other.handle) << "handles do not come back";
  is(f->C_InitPIN(officer, bytesOf("12345678"), 8),
     cannot({CKR_USER_NOT_LOGGED_IN, CKR_FUNCTION_NOT_SUPPORTED}, CKR_USER_NOT_LOGGED_IN, unsupported));
  is(officer.login(CKU_SO, "not the PIN"), CKR_PIN_INCORRECT);
  is(officer.login(CKU_SO, Session::pinOf(CKU_SO)), CKR_OK);
  EXPECT_EQ(officer.state(), CKS_RW_SO_FUNCTIONS);
  is(officer.login(), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
  is(f->C_OpenSession(slotOf(0), CKF_SERIAL_SESSION, nullptr, nullptr, &handle), CKR_SESSION_READ_WRITE_SO_EXISTS);
  EXPECT_TRUE(officer.find({{CKA_CLASS, CKO_PRIVATE_KEY}}).empty()) << "private objects are the user's";
  is(f->C_Logout(officer), CKR_OK);
  EXPECT_EQ(officer.state(), CKS_RW_PUBLIC_SESSION);
}

CK_RV setPin(CK_SESSION_HANDLE session, const std::string& before, const std::string& after) {
  return f->C_SetPIN(session, bytesOf(before), lengthOf(before), bytesOf(after), lengthOf(after));
}

TEST_F(StandardTest, Pins) {
  const Session reader(0, 1), writer(CKF_RW_SESSION, 1);
  const std::string pin = Session::pinOf(CKU_USER);
  is(setPin(reader, pin, "123456"), CKR_SESSION_READ_ONLY);
  is(setPin(writer, "not the PIN", "123456"), CKR_PIN_INCORRECT);
  each(CKR_PIN_LEN_RANGE, {1, 3, 64, 300}, [&](int length) {
    if (isSoftHsm()) length = length < 4 ? length : 300;  // it takes up to 255
    return setPin(writer, pin, std::string(static_cast<std::size_t>(length), '1'));
  });
  is(f->C_SetPIN(writer, nullptr, 3, nullptr, 3), CKR_ARGUMENTS_BAD);
  is(setPin(writer, pin, "1234"), CKR_OK, "no login is needed");
  is(writer.login(), CKR_PIN_INCORRECT);
  is(writer.login(CKU_USER, "1234"), CKR_OK);
  is(setPin(writer, "1234", pin), CKR_OK);
  EXPECT_EQ(reader.state(), CKS_RO_USER_FUNCTIONS);
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
     cannot(CKR_FUNCTION_NOT_SUPPORTED, CKR_OK, "no symmetric keys"));
  is(f->C_WrapKey(session, &wrapping, 1, 1, nullptr, &length),
     cannot(CKR_FUNCTION_NOT_SUPPORTED, CKR_WRAPPING_KEY_HANDLE_INVALID, unsupported));
  is(f->C_UnwrapKey(session, &wrapping, 1, bytesOf("x"), 1, key.data(), key.size(), &made),
     cannot(CKR_FUNCTION_NOT_SUPPORTED, CKR_UNWRAPPING_KEY_HANDLE_INVALID, unsupported));
  each(CKR_FUNCTION_NOT_SUPPORTED,
       {f->C_GetOperationState(session, nullptr, &length), f->C_SetOperationState(session, nullptr, 0, 0, 0),
        f->C_SignRecoverInit(session, &wrapping, 1), f->C_DigestEncryptUpdate(session, nullptr, 0, nullptr, &length)},
       [](CK_RV code) { return code; });
  is(f->C_DigestKey(session, 1), CKR_OPERATION_NOT_INITIALIZED);
  is(f->C_SeedRandom(session, bytesOf("seed"), 4), cannot(CKR_RANDOM_SEED_NOT_SUPPORTED, CKR_OK, "no seed is taken"));
  std::string random(64, '\0'), again = random;
  is(f->C_GenerateRandom(session, bytesOf(random), 64), CKR_OK);
  is(f->C_GenerateRandom(session, bytesOf(again), 64), CKR_OK);
  EXPECT_NE(random, again);
  is(f->C_GenerateRandom(session, nullptr, 4), CKR_ARGUMENTS_BAD);
}

}  // namespace
