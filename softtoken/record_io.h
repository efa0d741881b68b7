// Writing and reading of stored records: 32-bit big-endian numbers, and byte fields with their length in front.
#pragma once

#include <string>

#include "softtoken/bytes.h"
#include "softtoken/failure.h"

namespace softtoken {

template <class Container = Bytes>
class Writer {
 public:
  void number(std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) content_.push_back(static_cast<std::uint8_t>(value >> shift));
  }
  void raw(ByteView bytes) { content_.insert(content_.end(), bytes.begin(), bytes.end()); }
  void field(ByteView bytes) {
    number(static_cast<std::uint32_t>(bytes.size()));
    raw(bytes);
  }
  void field(std::string_view text) { field(viewOf(text)); }

  const Container& content() const { return content_; }
  Container take() && { return std::move(content_); }

 private:
  Container content_;
};

// Throws deviceFault when the bytes are too short or a value is out of range. Views point into the bytes that are read.
class Reader {
 public:
  explicit Reader(ByteView bytes) : rest_(bytes) {}

  std::uint32_t number() {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : raw(4)) value = value << 8 | byte;
    return value;
  }
  std::uint32_t number(std::uint32_t min, std::uint32_t max) {
    const std::uint32_t value = number();
    if (value < min || value > max) fail();
    return value;
  }
  ByteView raw(std::size_t length) {
    if (length > rest_.size()) fail();
    const ByteView bytes = rest_.first(length);
    rest_ = rest_.subspan(length);
    return bytes;
  }
  ByteView field(std::size_t limit) {
    const std::uint32_t length = number();
    if (length > limit) fail();
    return raw(length);
  }
  std::string text(std::size_t limit) {
    const ByteView bytes = field(limit);
    return {bytes.begin(), bytes.end()};
  }
  Bytes bytes(std::size_t limit) {
    const ByteView view = field(limit);
    return {view.begin(), view.end()};
  }
  void end() const {
    if (!rest_.empty()) fail();
  }

 private:
  [[noreturn]] static void fail() { throw Failure(Status::deviceFault, "a stored record is damaged"); }

  ByteView rest_;
};

}  // namespace softtoken
