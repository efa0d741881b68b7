/*
 * Cryptoki (PKCS#11) v2.20 for C and C++: the header to include.
 *
 * ABI. On Windows CK_ULONG has 32 bits and structures are byte-packed. Elsewhere CK_ULONG is the platform's unsigned
 * long and structures are naturally aligned, as the platform's Cryptoki clients expect. Defining
 * CRYPTOKI_WINDOWS_ABI gives the Windows layout on other platforms too (for tests; such a build fits no client).
 */
#ifndef TAVRIN_PKCS11_H
#define TAVRIN_PKCS11_H

#if defined(_WIN32)
#define CRYPTOKI_PACKED 1
#define CRYPTOKI_ULONG unsigned long
#define CRYPTOKI_ULONG_ZERO 0UL
#define CRYPTOKI_LONG long
#elif defined(CRYPTOKI_WINDOWS_ABI)
#define CRYPTOKI_PACKED 1
#define CRYPTOKI_ULONG unsigned int
#define CRYPTOKI_ULONG_ZERO 0U
#define CRYPTOKI_LONG int
#else
#define CRYPTOKI_PACKED 0
#define CRYPTOKI_ULONG unsigned long
#define CRYPTOKI_ULONG_ZERO 0UL
#define CRYPTOKI_LONG long
#endif

#ifdef __cplusplus
extern "C" {
#endif

#if CRYPTOKI_PACKED
#pragma pack(push, 1)
#endif

#include "pkcs11f.h"
#include "pkcs11t.h"

#define CRYPTOKI_PROTOTYPE(name, parameters) CK_RV name parameters;
CRYPTOKI_FUNCTIONS(CRYPTOKI_PROTOTYPE)
#undef CRYPTOKI_PROTOTYPE

#define CRYPTOKI_POINTER_TYPE(name, parameters) typedef CK_RV(*CK_##name) parameters;
CRYPTOKI_FUNCTIONS(CRYPTOKI_POINTER_TYPE)
#undef CRYPTOKI_POINTER_TYPE

#define CRYPTOKI_MEMBER(name, parameters) CK_##name name;
struct CK_FUNCTION_LIST {
  CK_VERSION version; /* of Cryptoki: 2.20 */
  CRYPTOKI_FUNCTIONS(CRYPTOKI_MEMBER)
};
#undef CRYPTOKI_MEMBER

#if CRYPTOKI_PACKED
#pragma pack(pop)
#endif

#ifdef __cplusplus
}
#endif

#endif
