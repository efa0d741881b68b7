#include "crypto/der.h"

#include "devlib/device_constants.h"

namespace tavrin {
namespace {

using Der = std::vector<std::uint8_t>;

constexpr std::uint8_t integerTag = 0x02;
constexpr std::uint8_t bitStringTag = 0x03;
constexpr std::uint8_t sequenceTag = 0x30;

// SEQUENCE { OID rsaEncryption, NULL }
constexpr std::uint8_t rsaAlgorithm[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                         0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

void append(Der& der, ByteView bytes) { der.insert(der.end(), bytes.begin(), bytes.end()); }

// A length below 128 is one byte; a longer one is 0x80 plus the number of bytes that follow, big-endian.
void appendLength(Der& der, std::size_t length) {
  if (length < 0x80) {
    der.push_back(static_cast<std::uint8_t>(length));
    return;
  }
  unsigned count = 1;
  while (length >> (8 * count) != 0) ++count;
  der.push_back(static_cast<std::uint8_t>(0x80 + count));
  while (count > 0) der.push_back(static_cast<std::uint8_t>(length >> (8 * --count)));
}

Der element(std::uint8_t tag, ByteView contents) {
  Der der{tag};
  appendLength(der, contents.size());
  append(der, contents);
  return der;
}

Der unsignedInteger(ByteView value) {
  Der contents;
  if (!value.empty() && (value.front() & 0x80) != 0) contents.push_back(0);
  append(contents, value);
  return element(integerTag, contents);
}

Der concatenation(ByteView first, ByteView second) {
  Der both(first.begin(), first.end());
  append(both, second);
  return both;
}

}  // namespace

std::vector<std::uint8_t> rsaSubjectPublicKeyInfo(ByteView modulus) {
  static constexpr std::uint8_t noUnusedBits[] = {0};
  const Der key =
      element(sequenceTag, concatenation(unsignedInteger(modulus), unsignedInteger(rsaPublicExponentBytes)));
  const Der bitString = element(bitStringTag, concatenation(noUnusedBits, key));
  return element(sequenceTag, concatenation(rsaAlgorithm, bitString));
}

}  // namespace tavrin
