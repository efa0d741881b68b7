// Reads DER of a known structure. Each step throws Failure when the next element has another tag.
#pragma once

#include "softtoken/der.h"
#include "softtoken/failure.h"

namespace tool {

class DerFields {
 public:
  explicit DerFields(softtoken::ByteView content) : rest_(content) {}

  bool empty() const { return rest_.empty(); }
  bool nextIs(std::uint8_t tag) const { return !rest_.empty() && rest_[0] == tag; }

  softtoken::DerElement take(std::uint8_t tag) {
    const auto element = softtoken::takeElement(rest_, tag);
    if (!element) {
      throw softtoken::Failure(softtoken::Status::badArgument,
                               "the file is damaged, or in an encoding other than DER (openssl can convert it)");
    }
    return *element;
  }
  DerFields inside(std::uint8_t tag) { return DerFields(take(tag).content); }
  softtoken::ByteView number() { return softtoken::withoutLeadingZeros(take(softtoken::tag::integer).content); }
  // A count that must be below 2^31.
  int smallNumber() {
    unsigned long value = 0;
    const softtoken::ByteView bytes = number();
    if (bytes.size() > 4 || (bytes.size() == 4 && bytes[0] >= 0x80))
      throw softtoken::Failure(softtoken::Status::badArgument, "the file holds a number that is out of range");
    for (const std::uint8_t byte : bytes) value = value << 8 | byte;
    return static_cast<int>(value);
  }

 private:
  softtoken::ByteView rest_;
};

namespace tag {
inline constexpr std::uint8_t objectIdentifier = 0x06;
inline constexpr std::uint8_t set = 0x31;
inline constexpr std::uint8_t implicitZero = 0x80;
}  // namespace tag

}  // namespace tool
