// The Cryptoki headers, and what this library uses of version 2.40 beyond 2.20.
#pragma once

#include "pkcs11.h"

inline constexpr CK_BYTE standardVersionMajor = 2;
inline constexpr CK_BYTE standardVersionMinor = 40;

#define CKA_NAME_HASH_ALGORITHM 0x0000008CU
#define CKA_PUBLIC_KEY_INFO 0x00000129U
#define CKA_COPYABLE 0x00000171U
#define CKA_DESTROYABLE 0x00000172U
#define CKA_ALLOWED_MECHANISMS 0x40000600U

#define CKD_SHA384_KDF 0x00000007U
#define CKD_SHA512_KDF 0x00000008U

#define CKR_ACTION_PROHIBITED 0x0000001BU
#define CKR_CURVE_NOT_SUPPORTED 0x00000140U
