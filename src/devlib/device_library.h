// The device library TavrinDSCLibrary: its records and its 29 operations, as the module imports them.
//
// A program that uses the library creates an instance, lists the devices and reads a token's record:
//
//   void* instance = nullptr;
//   tavrin_createInstance(&instance);  // null afterwards: the library cannot be used
//   for (const std::string& name : tavrin_getConnectedDeviceList(false, instance)) {
//     const TokenInfo token = tavrin_getTokenInfo(name.c_str(), instance);
//     const char* device = token.serialNumber.c_str();  // names the token in every other operation
//
// It lists the token's keys and signs a digest with the first one. Operations with a private key need the password:
//
//     const std::vector<TavrinKeyPair> keys = tavrin_getKeyPairList(device, instance);  // a copy, see below
//     std::uint8_t signature[1024];
//     int length = sizeof signature;
//     const int status = tavrin_signHash(device, keys[0].recordId, password, digest, 32, signature, &length, false,
//                                        instance, false);
//     if (status != 0) ...  // no signature; devlib/device_constants.h has the codes with a meaning for callers
//   }
//   tavrin_releaseInstance(instance);
//
// Conventions. A status is 0 for success, else the library's own code. `device` is a token's serial number. `recordId`
// points at the 16 bytes of a record's field of that name. Texts end in NUL and have 8-bit characters. Lengths count
// bytes.
//
// Ownership. What is returned by value belongs to the caller. Vectors returned by reference and buffers returned
// through a pointer belong to the library: copy them before the next call of the same operation on the same thread. A
// hash context belongs to the library; the final call or a failure ends it.
//
// Threads. The operations may be called from any thread. tavrin_getConnectedDeviceList may run at the same time as any
// other operation. A null instance is accepted everywhere. Operations may throw std::bad_alloc.
//
// The names, the order of members, the types and their constness decide the decorated names and the layouts, and so
// whether another build of the library fits. Change nothing here without changing the library too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// The build of a device library defines this to the attribute that exports its operations.
#ifndef TAVRIN_DEVICE_API
#define TAVRIN_DEVICE_API
#endif

struct TokenInfo {
  std::string serialNumber;  // the device's name and identifier; empty: no usable token
  std::string text2;
  std::string label;
  std::string text4;
  std::string model;
  std::string firmwareVersion;  // dotted numbers
  std::string text7;
  std::int32_t counter1;
  std::int32_t counter2;
  std::int32_t remainingRetries;  // password tries left; 0: locked, negative: unknown
  std::int32_t counters4To10[7];
  std::string text8;
  std::string text9;
  std::int32_t value10;
  std::int32_t value11;
};

struct TavrinKeyPair {
  std::uint32_t id;  // object handles are built from it
  std::uint8_t recordId[16];
  std::uint8_t publicKey[1024];  // RSA modulus (big-endian), or EC point without DER around it
  std::uint32_t publicKeyLength;
  std::uint8_t keyId[128];
  std::uint32_t keyIdLength;
  char label[132];
  std::uint32_t usage;       // tavrin::usageSign, tavrin::usageDecrypt
  std::uint32_t keyType;     // tavrin::KeyType
  std::uint32_t deviceFlag;  // its first byte is passed to the library when the key decrypts or is deleted
};

struct TavrinCertificate {
  std::uint32_t id;  // object handles are built from it
  std::uint8_t recordId[16];
  std::uint8_t certificate[3072];  // DER
  std::uint32_t certificateLength;
  std::uint8_t certId[128];
  std::uint32_t certIdLength;
  char label[152];
};

struct CertificateDetails {
  std::string subjectName;  // a name text such as CN=Example Root,O=Example,C=IN
  std::string issuerName;
  std::uint8_t makerFields[1024];  // space for further fields of the maker's record; zero, never read by the module
};

struct ImportPFXDetails {
  std::string label;
  std::int32_t keyType;
  std::uint8_t recordId[16];  // reported back by the device
  std::vector<std::uint8_t> value;
  std::vector<std::uint8_t> modulus;
  std::vector<std::uint8_t> publicExponent;
  std::vector<std::uint8_t> privateExponent;
  std::vector<std::uint8_t> prime1;
  std::vector<std::uint8_t> prime2;
  std::vector<std::uint8_t> exponent1;
  std::vector<std::uint8_t> exponent2;
  std::vector<std::uint8_t> coefficient;
};

enum class EncryptionType : std::int32_t { rsa1024 = 7, rsa2048 = 8, rsa3072 = 9, rsa4096 = 10 };
enum class PaddingMode : std::int32_t { pkcs1 = 1, oaep = 4 };

#ifdef _MSC_VER
static_assert(sizeof(TokenInfo) == 336, "a Debug build has another std::string than the maker's library");
#else
static_assert(sizeof(std::string) != 32 || sizeof(TokenInfo) == 336);
#endif
static_assert(sizeof(TavrinKeyPair) == 1324 && offsetof(TavrinKeyPair, deviceFlag) == 1320);
static_assert(sizeof(TavrinCertificate) == 3380 && offsetof(TavrinCertificate, label) == 3228);

// Stores a null instance when it fails.
TAVRIN_DEVICE_API void tavrin_createInstance(void** instance);
TAVRIN_DEVICE_API void tavrin_releaseInstance(void* instance);

TAVRIN_DEVICE_API std::vector<std::string> tavrin_getConnectedDeviceList(bool flag, void* instance);
TAVRIN_DEVICE_API TokenInfo tavrin_getTokenInfo(const char* name, void* instance);
TAVRIN_DEVICE_API int tavrin_initDevice(const char* device, bool flag, void* instance);

// `kind` is tavrin::userPasswordKind or officerPasswordKind; `retryCounter` receives the tries left.
TAVRIN_DEVICE_API int tavrin_validatePassword(const char* device, const char* password, int kind, int* retryCounter,
                                              void* instance);
// True when the password was changed. `failureCounter` receives the number that the module logs after a refusal. The
// module passes false for both flags.
TAVRIN_DEVICE_API bool tavrin_changeUserPassword(const char* device, const char* oldPassword, const char* newPassword,
                                                 int* failureCounter, bool flag1, bool flag2, void* instance);

TAVRIN_DEVICE_API const std::vector<TavrinKeyPair>& tavrin_getKeyPairList(const char* device, void* instance);
TAVRIN_DEVICE_API const std::vector<TavrinCertificate>& tavrin_getCertificateList(const char* device, void* instance);

// Takes key type, usage, label and key id from the record, and fills in the rest.
TAVRIN_DEVICE_API int tavrin_generateKeyPair(const char* device, const char* password, TavrinKeyPair* keyPair,
                                             void* instance);
TAVRIN_DEVICE_API int tavrin_deleteKeyPair(const char* device, const std::uint8_t* recordId, const char* password,
                                           bool flag, void* instance);
TAVRIN_DEVICE_API int tavrin_updateKeyPairDetails(const char* device, const std::uint8_t* recordId,
                                                  const char* password, const char* label, const std::uint8_t* keyId,
                                                  int keyIdLength, void* instance);
TAVRIN_DEVICE_API int tavrin_importCertificate(const char* device, const char* password, TavrinCertificate* certificate,
                                               void* instance);
TAVRIN_DEVICE_API int tavrin_deleteCertificate(const char* device, const std::uint8_t* recordId, const char* password,
                                               void* instance);
// Imports an RSA key. The module sets label, keyType, value, modulus, privateExponent and prime1 (numbers are
// big-endian); the library sets recordId.
TAVRIN_DEVICE_API int tavrin_importPfx(const char* device, const char* password, ImportPFXDetails* details,
                                       void* instance);

TAVRIN_DEVICE_API int tavrin_getCertificateDetails(const std::uint8_t* der, int length, CertificateDetails* details,
                                                   void* instance);
TAVRIN_DEVICE_API std::vector<std::uint8_t> tavrin_getCertificateSubject(const std::uint8_t* der, int length,
                                                                         void* instance);
TAVRIN_DEVICE_API std::vector<std::uint8_t> tavrin_getCertificateIssuer(const std::uint8_t* der, int length,
                                                                        void* instance);
TAVRIN_DEVICE_API std::vector<std::uint8_t> tavrin_getCertificateSerialDER(const std::uint8_t* der, int length,
                                                                           void* instance);
// The file name and DER certificate of each file in `folder` with one of the extensions, which include the dot. Empty
// when the folder cannot be read.
TAVRIN_DEVICE_API std::vector<std::pair<std::string, std::vector<std::uint8_t>>>
tavrin_getFilesWithExtensionsAndConvertDER(const std::string& folder, const std::vector<std::string>& extensions,
                                           void* instance);

// `hashCode` is a tavrin::HashCode. The in-length of the final call is ignored.
TAVRIN_DEVICE_API int tavrin_initHash(const char* device, int hashCode, void** context, void* instance);
TAVRIN_DEVICE_API int tavrin_updateHash(void* context, const std::uint8_t* data, int length, void* instance);
TAVRIN_DEVICE_API int tavrin_finalHash(void* context, std::uint8_t* digest, int* length, void* instance);

// The in-length of the signature is ignored.
TAVRIN_DEVICE_API int tavrin_signHash(const char* device, const std::uint8_t* recordId, const char* password,
                                      const std::uint8_t* input, int inputLength, std::uint8_t* signature,
                                      int* signatureLength, bool flag, void* instance, bool pss);
// 0 only for a valid signature. `publicKey` is an EC point, or an RSA key as SubjectPublicKeyInfo or as its bare
// modulus.
TAVRIN_DEVICE_API int tavrin_verifySignatureHash(std::uint32_t keyType, const char* device, const std::uint8_t* input,
                                                 int inputLength, const std::uint8_t* publicKey, int publicKeyLength,
                                                 const std::uint8_t* signature, int signatureLength, void* instance,
                                                 bool pss);

// `publicKey` is a DER SubjectPublicKeyInfo; the in-length of the ciphertext is ignored.
TAVRIN_DEVICE_API int tavrin_encrypt(EncryptionType type, PaddingMode padding, const std::uint8_t* data, int dataLength,
                                     std::uint8_t* ciphertext, int* ciphertextLength, const std::uint8_t* publicKey,
                                     int publicKeyLength, void* instance);
TAVRIN_DEVICE_API int tavrin_decrypt(const char* device, const std::uint8_t* recordId, const char* password,
                                     const std::uint8_t* ciphertext, int ciphertextLength, std::uint8_t** plaintext,
                                     int* plaintextLength, bool flag, void* instance);
TAVRIN_DEVICE_API int tavrin_ecdhDerive(const char* device, const std::uint8_t* recordId, const char* password,
                                        const std::uint8_t* peerPoint, int peerPointLength, std::uint8_t** secret,
                                        int* secretLength, void* instance);

// The misspelling is the library's own.
TAVRIN_DEVICE_API int tavrin_generateRamdomNumber(const char* device, int count, std::uint8_t* out, bool flag,
                                                  void* instance);
