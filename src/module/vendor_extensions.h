// Three functions beyond the standard, outside the function list. They have C++ linkage: old clients import them by
// the names that the platform's compiler gives to these signatures.
#pragma once

#include "pkcs11.h"

CK_RV C_EjectToken(CK_SLOT_ID slotID);
CK_RV C_GetUnmanagedStructSizeList(CK_ULONG_PTR pSizes, CK_ULONG_PTR pulCount);
CK_RV C_InteractiveLogin(CK_SESSION_HANDLE hSession);
