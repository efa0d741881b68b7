#include "crypto/der.h"

namespace {

using Der = std::vector<std::uint8_t>;

constexpr std::uint8_t integerTag = 0x02;
constexpr std::uint8_t bitStringTag = 0x03;
constexpr std::uint8_t sequenceTag = 0x30;

// SEQUENCE { OID rsaEncryption, NULL }
constexpr std::uint8_t rsaAlgorithm[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                         0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
constexpr std::uint8_t publicExponent[] = {0x01, 0x00, 0x01};

void append(Der& der, Bytes bytes) { der.insert(der.end(), bytes.begin(), bytes.end()); }

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

Der element(std::uint8_t tag, Bytes contents) {
  Der der{tag};
  appendLength(der, contents.size());
  append(der, contents);
  return der;
}

Der unsignedInteger(Bytes value) {
  Der contents;
  if (!value.empty() && (value.front() & 0x80) != 0) contents.push_back(0);
  append(contents, value);
  return element(integerTag, contents);
}

Der concatenation(Bytes first, Bytes second) {
  Der both(first.begin(), first.end());
  append(both, second);
  return both;
}

}  // namespace

std::vector<std::uint8_t> rsaSubjectPublicKeyInfo(Bytes modulus) {
  static constexpr std::uint8_t noUnusedBits[] = {0};
  const Der key = element(sequenceTag, concatenation(unsignedInteger(modulus), unsignedInteger(publicExponent)));
  const Der bitString = element(bitStringTag, concatenation(noUnusedBits, key));
  return element(sequenceTag, concatenation(rsaAlgorithm, bitString));
}
