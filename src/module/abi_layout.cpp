// Checks at compile time that the layouts are those that applications were compiled with, and that the limits of
// records are the sizes of their fields.
#include <cstddef>

#include "devlib/device_constants.h"
#include "devlib/device_library.h"
#include "pkcs11.h"

static_assert(sizeof(TavrinCertificate::certificate) == tavrin::maximumCertificateLength);
static_assert(sizeof(TavrinCertificate::certId) == tavrin::maximumIdLength);
static_assert(sizeof(TavrinKeyPair::keyId) == tavrin::maximumIdLength);

#if CRYPTOKI_PACKED

static_assert(sizeof(CK_ULONG) == 4 && sizeof(void*) == 8);
static_assert(sizeof(CK_VERSION) == 2);
static_assert(sizeof(CK_INFO) == 72 && offsetof(CK_INFO, flags) == 34 && offsetof(CK_INFO, libraryVersion) == 70);
static_assert(sizeof(CK_SLOT_INFO) == 104 && offsetof(CK_SLOT_INFO, flags) == 96);
static_assert(sizeof(CK_TOKEN_INFO) == 160 && offsetof(CK_TOKEN_INFO, flags) == 96 &&
              offsetof(CK_TOKEN_INFO, hardwareVersion) == 140 && offsetof(CK_TOKEN_INFO, utcTime) == 144);
static_assert(sizeof(CK_SESSION_INFO) == 16 && offsetof(CK_SESSION_INFO, flags) == 8);
static_assert(sizeof(CK_ATTRIBUTE) == 16 && offsetof(CK_ATTRIBUTE, pValue) == 4 &&
              offsetof(CK_ATTRIBUTE, ulValueLen) == 12);
static_assert(sizeof(CK_MECHANISM) == 16 && offsetof(CK_MECHANISM, pParameter) == 4 &&
              offsetof(CK_MECHANISM, ulParameterLen) == 12);
static_assert(sizeof(CK_MECHANISM_INFO) == 12);
static_assert(sizeof(CK_ECDH1_DERIVE_PARAMS) == 28 && offsetof(CK_ECDH1_DERIVE_PARAMS, pPublicData) == 20);
static_assert(sizeof(CK_RSA_PKCS_OAEP_PARAMS) == 24 && sizeof(CK_RSA_PKCS_PSS_PARAMS) == 12);
static_assert(sizeof(CK_C_INITIALIZE_ARGS) == 44);
static_assert(sizeof(CK_FUNCTION_LIST) == 546 && offsetof(CK_FUNCTION_LIST, C_Initialize) == 2 &&
              offsetof(CK_FUNCTION_LIST, C_WaitForSlotEvent) == 538);

#else

static_assert(sizeof(CK_ULONG) == sizeof(unsigned long) && sizeof(void*) == sizeof(unsigned long));
static_assert(sizeof(CK_INFO) == 88 && offsetof(CK_INFO, flags) == 40 && offsetof(CK_INFO, libraryVersion) == 80);
static_assert(sizeof(CK_SLOT_INFO) == 112 && offsetof(CK_SLOT_INFO, flags) == 96);
static_assert(sizeof(CK_TOKEN_INFO) == 208 && offsetof(CK_TOKEN_INFO, hardwareVersion) == 184);
static_assert(sizeof(CK_SESSION_INFO) == 32 && sizeof(CK_ATTRIBUTE) == 24 && sizeof(CK_MECHANISM) == 24);
static_assert(sizeof(CK_MECHANISM_INFO) == 24 && sizeof(CK_ECDH1_DERIVE_PARAMS) == 40);
static_assert(sizeof(CK_FUNCTION_LIST) == 552 && offsetof(CK_FUNCTION_LIST, C_Initialize) == 8);

#endif
