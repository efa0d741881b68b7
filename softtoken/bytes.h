// Byte containers: views, plain owners, and owners that wipe their memory before they release it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "softtoken/platform.h"

namespace softtoken {

using Bytes = std::vector<std::uint8_t>;

template <class Value>
struct WipingAllocator {
  using value_type = Value;

  WipingAllocator() = default;
  template <class Other>
  explicit WipingAllocator(const WipingAllocator<Other>&) {}

  Value* allocate(std::size_t count) { return std::allocator<Value>().allocate(count); }
  void deallocate(Value* block, std::size_t count) {
    wipe(block, count * sizeof(Value));
    std::allocator<Value>().deallocate(block, count);
  }
  bool operator==(const WipingAllocator&) const = default;
};

// Wipes its memory before it is released, also when the vector grows.
using SecretBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

inline ByteView viewOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// The time does not depend on where the bytes differ. It depends on the lengths, which are not secret.
inline bool equalInConstantTime(ByteView left, ByteView right) {
  if (left.size() != right.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < left.size(); ++i) difference |= static_cast<unsigned>(left[i] ^ right[i]);
  return difference == 0;
}

}  // namespace softtoken
