// What the platform's own ABI adds: numbers of 64 bits, of which handles and slots use 32.
#include "module_test.h"

namespace {

using NativeAbiTest = ModuleTest;

constexpr CK_ULONG wide(CK_ULONG value) { return value | (CK_ULONG{1} << 32); }

TEST_F(NativeAbiTest, WiderHandlesAreUnknown) {
  const CK_SESSION_HANDLE session = openLoggedIn();
  const CK_OBJECT_HANDLE secret = derive(session, "x");
  EXPECT_EQ(secret, 0x70003000u);  // the first of this process
  CK_ULONG out[64];                // room for any answer
  void* const any = out;
  EXPECT_EQ(C_GetSlotInfo(wide(slot1), static_cast<CK_SLOT_INFO*>(any)), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(C_GetTokenInfo(wide(slot1), static_cast<CK_TOKEN_INFO*>(any)), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(C_OpenSession(wide(slot1), readWrite, nullptr, nullptr, out), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(C_CloseAllSessions(wide(slot1)), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(C_GetSessionInfo(wide(session), static_cast<CK_SESSION_INFO*>(any)), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(C_CloseSession(wide(session)), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(C_GetMechanismInfo(slot1, wide(CKM_RSA_PKCS), static_cast<CK_MECHANISM_INFO*>(any)), CKR_MECHANISM_INVALID);
  EXPECT_EQ(login(session, wide(CKU_SO)).make(), CKR_USER_TYPE_INVALID);
  EXPECT_EQ(C_SetPIN(session, bytes("1234"), wide(4), bytes("1234"), 4), CKR_PIN_LEN_RANGE);
  EXPECT_EQ(signInit(session, wide(CKM_RSA_PKCS)).make(), CKR_MECHANISM_INVALID);
  EXPECT_EQ(encryptInit(session, wide(CKM_RSA_PKCS)).make(), CKR_MECHANISM_INVALID);
  EXPECT_EQ(digestInit(session, wide(CKM_SHA_1)).make(), CKR_MECHANISM_INVALID);

  CK_ATTRIBUTE attribute{CKA_LABEL, bytes("x"), 1};
  CK_ECDH1_DERIVE_PARAMS parameters{CKD_NULL, 0, nullptr, 1, bytes("x")};
  CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
  for (const CK_OBJECT_HANDLE object : {rsaPrivate, rsaPublic, certificate1, secret}) {
    const CK_OBJECT_HANDLE w = wide(object);
    for (const Call& call :
         {CALL(C_GetAttributeValue, session, w, &attribute, 1), CALL(C_SetAttributeValue, session, w, &attribute, 1),
          CALL(C_GetObjectSize, session, w, out), CALL(C_DestroyObject, session, w), signInit(session, CKM_RSA_PKCS, w),
          verifyInit(session, CKM_RSA_PKCS, w), encryptInit(session, CKM_RSA_PKCS, w),
          encryptInit(session, CKM_RSA_PKCS_OAEP, w), decryptInit(session, CKM_RSA_PKCS, w)}) {
      EXPECT_EQ(call.make(), CKR_OBJECT_HANDLE_INVALID) << call.name << " " << object;
    }
    EXPECT_EQ(C_DeriveKey(session, &mechanism, w, nullptr, 0, out), CKR_KEY_HANDLE_INVALID) << object;
  }
}

TEST_F(NativeAbiTest, UnavailableNumbersHave64BitsToo) {
  const Template ofSecret{{CKA_CLASS, Template::nothing}};
  const CK_SESSION_HANDLE session = openLoggedIn();
  ok(C_GetAttributeValue(session, derive(session, "x"), ofSecret.data(), 1));
  EXPECT_EQ(ofSecret.length(0), CK_UNAVAILABLE_INFORMATION);
  CK_TOKEN_INFO info;
  ok(C_GetTokenInfo(slot1, &info));
  EXPECT_EQ(info.ulFreePrivateMemory, CK_UNAVAILABLE_INFORMATION);
  EXPECT_EQ(get(session, ecPrivate, CKA_MODULUS_BITS), number(256));
}

}  // namespace
