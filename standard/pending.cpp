// Functions that are not written yet.
#include "standard/call.h"

using namespace tavrin;
using namespace tavrin::standard;

#define PENDING(name, ...)                                                                      \
  CK_RV name(CK_SESSION_HANDLE hSession, ##__VA_ARGS__) {                                       \
    return sessionCall(#name, hSession, [](const Call& call, State&, const Session&) -> CK_RV { \
      return call.refuse(CKR_FUNCTION_NOT_SUPPORTED, "not written yet");                        \
    });                                                                                         \
  }
#define M CK_MECHANISM_PTR
#define H CK_OBJECT_HANDLE
#define HP CK_OBJECT_HANDLE_PTR
#define A CK_ATTRIBUTE_PTR
#define N CK_ULONG
#define NP CK_ULONG_PTR
#define B CK_BYTE_PTR
PENDING(C_GetAttributeValue, H, A, N)
PENDING(C_SetAttributeValue, H, A, N)
PENDING(C_GetObjectSize, H, NP)
PENDING(C_CreateObject, A, N, HP)
PENDING(C_CopyObject, H, A, N, HP)
PENDING(C_DestroyObject, H)
PENDING(C_FindObjectsInit, A, N)
PENDING(C_FindObjects, HP, N, NP)
PENDING(C_EncryptInit, M, H)
PENDING(C_Encrypt, B, N, B, NP)
PENDING(C_EncryptUpdate, B, N, B, NP)
PENDING(C_EncryptFinal, B, NP)
PENDING(C_DecryptInit, M, H)
PENDING(C_Decrypt, B, N, B, NP)
PENDING(C_DecryptUpdate, B, N, B, NP)
PENDING(C_DecryptFinal, B, NP)
PENDING(C_SignInit, M, H)
PENDING(C_Sign, B, N, B, NP)
PENDING(C_SignUpdate, B, N)
PENDING(C_SignFinal, B, NP)
PENDING(C_VerifyInit, M, H)
PENDING(C_Verify, B, N, B, N)
PENDING(C_VerifyUpdate, B, N)
PENDING(C_VerifyFinal, B, N)
PENDING(C_GenerateKeyPair, M, A, N, A, N, HP, HP)
PENDING(C_DeriveKey, M, H, A, N, HP)
CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE) { return CKR_FUNCTION_NOT_SUPPORTED; }
namespace tavrin::standard {
const Attributes& readAttributes(ModuleLock&, Object& object) { return *object.attributes; }
}  // namespace tavrin::standard
