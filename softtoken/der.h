// Parsing of DER that libksba does not do: single elements, and the fields of an RSA public key.
#pragma once

#include <optional>

#include "softtoken/bytes.h"

namespace softtoken {

namespace tag {
constexpr std::uint8_t integer = 0x02;
constexpr std::uint8_t bitString = 0x03;
constexpr std::uint8_t octetString = 0x04;
constexpr std::uint8_t sequence = 0x30;
constexpr std::uint8_t explicitZero = 0xA0;
}  // namespace tag

// The object identifier of RSA keys, with tag and length.
inline constexpr std::uint8_t rsaEncryption[] = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};

struct DerElement {
  std::uint8_t tag;
  ByteView content;
  ByteView whole;  // tag and length too
};

// Removes the first element from `rest`. Empty, with `rest` unchanged, when there is no complete element with a
// definite length.
std::optional<DerElement> takeElement(ByteView& rest);
// The same for an element that must have this tag.
std::optional<DerElement> takeElement(ByteView& rest, std::uint8_t tag);

// Whether the bytes are a sequence of complete elements, and the contents of the constructed elements are too.
bool isWellFormed(ByteView der);

struct RsaPublicKey {
  Bytes modulus;  // big-endian, without leading zeros
  Bytes exponent;
};

// The key in a SubjectPublicKeyInfo without trailing bytes; empty for anything else and for another algorithm.
std::optional<RsaPublicKey> rsaPublicKeyIn(ByteView der);

// The number without leading zeros; empty for zero.
ByteView withoutLeadingZeros(ByteView number);

}  // namespace softtoken
