// The little DER that keys and certificates need around libksba: walking over elements, and an RSA public key's fields.
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

struct DerElement {
  std::uint8_t tag;
  ByteView content;
  ByteView whole;  // tag and length too
};

// Takes the first element off `rest`; nothing, and `rest` as it was, when there is no whole one with a definite length.
std::optional<DerElement> takeElement(ByteView& rest);
// The same for an element that must have this tag.
std::optional<DerElement> takeElement(ByteView& rest, std::uint8_t tag);

// Whether the bytes are whole elements one behind the other, and so are the contents of the constructed ones among
// them.
bool isWellFormed(ByteView der);

struct RsaPublicKey {
  Bytes modulus;  // big-endian, without leading zeros
  Bytes exponent;
};

// From a SubjectPublicKeyInfo that fills `der`; nothing when it is none, or one of another algorithm.
std::optional<RsaPublicKey> rsaPublicKeyIn(ByteView der);

// Removes the zeros in front of a number.
ByteView withoutLeadingZeros(ByteView number);

}  // namespace softtoken
