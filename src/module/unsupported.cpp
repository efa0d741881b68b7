// The unsupported functions. Each writes its debug line and returns CKR_FUNCTION_NOT_SUPPORTED; nothing is checked.
#include "frame/call_frames.h"
#include "module/vendor_extensions.h"

namespace tavrin {
namespace {

CK_RV unsupported(const char* name) noexcept {
  return exportedCall(name, [](const Call&) -> CK_RV { return CKR_FUNCTION_NOT_SUPPORTED; });
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

// clang-format off
CK_RV C_InitToken(CK_SLOT_ID, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR) { return unsupported("C_InitToken"); }
CK_RV C_InitPIN(CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG) { return unsupported("C_InitPIN"); }
CK_RV C_GetOperationState(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_GetOperationState"); }
CK_RV C_SetOperationState(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE) { return unsupported("C_SetOperationState"); }
CK_RV C_CopyObject(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) { return unsupported("C_CopyObject"); }
CK_RV C_EncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_EncryptUpdate"); }
CK_RV C_EncryptFinal(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_EncryptFinal"); }
CK_RV C_DecryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_DecryptUpdate"); }
CK_RV C_DecryptFinal(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_DecryptFinal"); }
CK_RV C_DigestKey(CK_SESSION_HANDLE, CK_OBJECT_HANDLE) { return unsupported("C_DigestKey"); }
CK_RV C_SignRecoverInit(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE) { return unsupported("C_SignRecoverInit"); }
CK_RV C_SignRecover(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_SignRecover"); }
CK_RV C_VerifyRecoverInit(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE) { return unsupported("C_VerifyRecoverInit"); }
CK_RV C_VerifyRecover(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_VerifyRecover"); }
CK_RV C_DigestEncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_DigestEncryptUpdate"); }
CK_RV C_DecryptDigestUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_DecryptDigestUpdate"); }
CK_RV C_SignEncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_SignEncryptUpdate"); }
CK_RV C_DecryptVerifyUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_DecryptVerifyUpdate"); }
CK_RV C_GenerateKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) { return unsupported("C_GenerateKey"); }
CK_RV C_WrapKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported("C_WrapKey"); }
CK_RV C_UnwrapKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) { return unsupported("C_UnwrapKey"); }
CK_RV C_SeedRandom(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG) { return unsupported("C_SeedRandom"); }
CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE) { return unsupported("C_GetFunctionStatus"); }
CK_RV C_CancelFunction(CK_SESSION_HANDLE) { return unsupported("C_CancelFunction"); }

CK_RV C_EjectToken(CK_SLOT_ID) { return unsupported("C_EjectToken"); }
CK_RV C_GetUnmanagedStructSizeList(CK_ULONG_PTR, CK_ULONG_PTR) { return unsupported("C_GetUnmanagedStructSizeList"); }
CK_RV C_InteractiveLogin(CK_SESSION_HANDLE) { return unsupported("C_InteractiveLogin"); }
// clang-format on
