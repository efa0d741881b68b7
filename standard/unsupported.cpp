// The functions that the token cannot do, and the two that the standard keeps for old applications.
#include "standard/call_frames.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

CK_RV unsupportedInSession(const char* name, CK_SESSION_HANDLE hSession) {
  return sessionCall(name, hSession, [](const Call& call, State&, const Session&) -> CK_RV {
    return call.refuse(CKR_FUNCTION_NOT_SUPPORTED, "not supported by the token");
  });
}

CK_RV notParallel(const char* name) {
  return exportedCall(name, [](const Call& call) -> CK_RV {
    return call.refuse(CKR_FUNCTION_NOT_PARALLEL, "functions run to their end");
  });
}

}  // namespace

// NOLINTBEGIN(readability-named-parameter)
#define UNSUPPORTED(name, ...) \
  CK_RV name(CK_SESSION_HANDLE hSession, __VA_ARGS__) { return unsupportedInSession(#name, hSession); }

UNSUPPORTED(C_InitPIN, CK_UTF8CHAR_PTR, CK_ULONG)
UNSUPPORTED(C_GetOperationState, CK_BYTE_PTR, CK_ULONG_PTR)
UNSUPPORTED(C_SetOperationState, CK_BYTE_PTR, CK_ULONG, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE)
UNSUPPORTED(C_SignRecoverInit, CK_MECHANISM_PTR, CK_OBJECT_HANDLE)
UNSUPPORTED(C_SignRecover, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
UNSUPPORTED(C_VerifyRecoverInit, CK_MECHANISM_PTR, CK_OBJECT_HANDLE)
UNSUPPORTED(C_VerifyRecover, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
UNSUPPORTED(C_DigestEncryptUpdate, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
UNSUPPORTED(C_DecryptDigestUpdate, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
UNSUPPORTED(C_SignEncryptUpdate, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
UNSUPPORTED(C_DecryptVerifyUpdate, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
UNSUPPORTED(C_GenerateKey, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR)
UNSUPPORTED(C_WrapKey, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR)
UNSUPPORTED(C_UnwrapKey, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_ATTRIBUTE_PTR, CK_ULONG,
            CK_OBJECT_HANDLE_PTR)
#undef UNSUPPORTED
// NOLINTEND(readability-named-parameter)

CK_RV C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR) {
  return slotCall("C_InitToken", slotID, [](const Call& call, ModuleLock&, const Token*) -> CK_RV {
    return call.refuse(CKR_FUNCTION_NOT_SUPPORTED, "tokens are initialised by their own tool");
  });
}

CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE) { return notParallel("C_GetFunctionStatus"); }
CK_RV C_CancelFunction(CK_SESSION_HANDLE) { return notParallel("C_CancelFunction"); }
