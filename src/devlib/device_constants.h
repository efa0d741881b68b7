// The numbers of the device library's interface: key types, usage bits, limits and statuses. The module, the software
// token, tavrin-tool and the benchmarks take them from here. Constants only: everything may be used on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "devlib/byte_view.h"

namespace tavrin {

// TavrinKeyPair::keyType.
enum class KeyType : std::uint32_t {
  rsa1024 = 1,
  rsa2048 = 2,
  rsa3072 = 3,
  rsa4096 = 4,
  ecP256 = 5,
  ecP384 = 6,
  ecP521 = 7
};

enum class KeyAlgorithm { rsa, ec };

struct KeyTypeInfo {
  KeyType type;
  KeyAlgorithm algorithm;
  std::uint32_t bits;  // of the RSA modulus, or of the curve
  int encryption;      // the EncryptionType of such keys; 0 for EC
  const char* name;    // for people
  ByteView curve;      // the curve's object identifier in DER, with tag and length; empty for RSA
};

inline constexpr std::uint8_t oidP256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
inline constexpr std::uint8_t oidP384[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
inline constexpr std::uint8_t oidP521[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

// In the order of their codes, which begin with 1.
inline constexpr KeyTypeInfo keyTypes[] = {{KeyType::rsa1024, KeyAlgorithm::rsa, 1024, 7, "RSA 1024", {}},
                                           {KeyType::rsa2048, KeyAlgorithm::rsa, 2048, 8, "RSA 2048", {}},
                                           {KeyType::rsa3072, KeyAlgorithm::rsa, 3072, 9, "RSA 3072", {}},
                                           {KeyType::rsa4096, KeyAlgorithm::rsa, 4096, 10, "RSA 4096", {}},
                                           {KeyType::ecP256, KeyAlgorithm::ec, 256, 0, "P-256", oidP256},
                                           {KeyType::ecP384, KeyAlgorithm::ec, 384, 0, "P-384", oidP384},
                                           {KeyType::ecP521, KeyAlgorithm::ec, 521, 0, "P-521", oidP521}};

constexpr std::uint32_t codeOf(KeyType type) { return static_cast<std::uint32_t>(type); }

// The row of a record's key type code, or null for a code outside the table.
constexpr const KeyTypeInfo* findKeyType(std::uint32_t code) {
  return code >= 1 && code <= std::size(keyTypes) ? &keyTypes[code - 1] : nullptr;
}

// The sizes of keys in bits.
struct KeySizes {
  std::uint32_t smallest;
  std::uint32_t largest;
};
inline constexpr KeySizes rsaKeySizes{1024, 4096};
inline constexpr KeySizes ecKeySizes{256, 521};

// The bits of TavrinKeyPair::usage.
inline constexpr std::uint32_t usageSign = 1U << 0;     // sign and verify
inline constexpr std::uint32_t usageDecrypt = 1U << 1;  // encrypt and decrypt

// The public exponent of every RSA key, 65537, big-endian.
inline constexpr std::uint32_t rsaPublicExponent = 65537;
inline constexpr std::uint8_t rsaPublicExponentBytes[] = {0x01, 0x00, 0x01};

// The largest number of a record. The numbers of key pairs and of certificates begin with 1.
inline constexpr std::uint32_t maximumRecordNumber = 0xFFF;

// The longest label that a token takes, in bytes. The records' fields are longer.
inline constexpr std::size_t maximumLabelLength = 128;

// The bytes that C_GetTokenInfo shows of a token's label of this length. A label that fits into the field of 32 bytes
// is cut after 30; only a longer one fills the field. Clients have matched tokens by labels that were cut in this way.
constexpr std::size_t shownLabelLength(std::size_t length) { return length > 32 ? 32 : length > 30 ? 30 : length; }

// The longest certificate, and the longest ID of a record, in bytes.
inline constexpr std::size_t maximumCertificateLength = 3072;
inline constexpr std::size_t maximumIdLength = 128;

// The token's password, in bytes without its NUL.
inline constexpr std::uint32_t minimumPinLength = 4;
inline constexpr std::uint32_t maximumPinLength = 63;

// Hash codes of tavrin_initHash. 1 is SHA-1 too; key derivation uses that code.
enum class HashCode : std::int32_t {
  none = 0,  // not a code of the library: marks input that is not hashed
  sha1Alternative = 1,
  sha1 = 2,
  sha256 = 3,
  sha384 = 4,
  sha512 = 5
};

// The space for a signature or ciphertext, in bytes. The longest are those of RSA 4096, with 512 bytes.
inline constexpr std::size_t maximumSignatureLength = 1024;

// The most bytes that the module takes of a plaintext or a shared secret in the library's own buffer. Real results are
// far shorter; the bound keeps a wrong length from reading beyond the buffer by more than that.
inline constexpr std::size_t maximumResultLength = 4096;

// The maker of the tokens and of their libraries, as Cryptoki reports it.
inline constexpr char makerName[] = "Quorvane Telemantix";

// The kinds of password of tavrin_validatePassword.
inline constexpr int userPasswordKind = 1;
inline constexpr int officerPasswordKind = 2;

// The statuses that the module treats specially. Every other status but 0 is a failure like any other.
inline constexpr int statusTokenFull = 40;
inline constexpr int statusDeviceFault = 48;       // the token is missing or damaged, or its storage failed
inline constexpr int statusTokenFullLegacy = 242;  // of older firmware

}  // namespace tavrin
