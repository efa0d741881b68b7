#include "softtoken/der.h"

#include <algorithm>

namespace softtoken {
namespace {

constexpr std::uint8_t longForm = 0x80;
constexpr std::uint8_t constructed = 0x20;
constexpr std::size_t maxLengthBytes = 4;

// Removes an element's length field from `rest`.
std::optional<std::size_t> takeLength(ByteView& rest) {
  if (rest.empty()) return std::nullopt;
  const std::uint8_t first = rest[0];
  rest = rest.subspan(1);
  if (first < longForm) return first;
  const std::size_t count = first - longForm;
  if (count == 0 || count > maxLengthBytes || count > rest.size()) return std::nullopt;
  std::size_t length = 0;
  for (const std::uint8_t byte : rest.first(count)) length = length << 8 | byte;
  rest = rest.subspan(count);
  return length;
}

}  // namespace

std::optional<DerElement> takeElement(ByteView& rest) {
  if (rest.empty()) return std::nullopt;
  ByteView after = rest.subspan(1);
  const std::optional<std::size_t> length = takeLength(after);
  if (!length || *length > after.size()) return std::nullopt;
  const ByteView content = after.first(*length);
  after = after.subspan(*length);
  const DerElement element{rest[0], content, rest.first(rest.size() - after.size())};
  rest = after;
  return element;
}

std::optional<DerElement> takeElement(ByteView& rest, std::uint8_t tag) {
  if (rest.empty() || rest[0] != tag) return std::nullopt;
  return takeElement(rest);
}

bool isWellFormed(ByteView der) {
  // A list instead of recursion: a file may nest deeper than the stack allows.
  std::vector<ByteView> waiting{der};
  while (!waiting.empty()) {
    ByteView rest = waiting.back();
    waiting.pop_back();
    while (!rest.empty()) {
      const auto element = takeElement(rest);
      if (!element || element->tag == 0) return false;
      if (element->tag & constructed) waiting.push_back(element->content);
    }
  }
  return true;
}

std::optional<RsaPublicKey> rsaPublicKeyIn(ByteView der) {
  const auto info = takeElement(der, tag::sequence);
  if (!info || !der.empty()) return std::nullopt;
  ByteView fields = info->content;
  const auto algorithm = takeElement(fields, tag::sequence);
  const auto keyBits = takeElement(fields, tag::bitString);
  if (!algorithm || !keyBits || keyBits->content.empty() || keyBits->content[0] != 0) return std::nullopt;
  const ByteView identifier = algorithm->content;
  if (identifier.size() < std::size(rsaEncryption) ||
      !std::ranges::equal(identifier.first(std::size(rsaEncryption)), rsaEncryption))
    return std::nullopt;

  ByteView keyBytes = keyBits->content.subspan(1);
  const auto key = takeElement(keyBytes, tag::sequence);
  if (!key) return std::nullopt;
  ByteView numbers = key->content;
  const auto modulus = takeElement(numbers, tag::integer);
  const auto exponent = takeElement(numbers, tag::integer);
  if (!modulus || !exponent) return std::nullopt;
  const ByteView shortModulus = withoutLeadingZeros(modulus->content);
  const ByteView shortExponent = withoutLeadingZeros(exponent->content);
  return RsaPublicKey{{shortModulus.begin(), shortModulus.end()}, {shortExponent.begin(), shortExponent.end()}};
}

ByteView withoutLeadingZeros(ByteView number) {
  while (!number.empty() && number[0] == 0) number = number.subspan(1);
  return number;
}

}  // namespace softtoken
