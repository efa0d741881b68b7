// Memory for secrets. It is wiped when it is released. Any thread may use it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/platform.h"

namespace tavrin {

template <typename T>
struct WipingAllocator {
  using value_type = T;

  WipingAllocator() = default;
  template <typename U>
  explicit WipingAllocator(const WipingAllocator<U>&) {}

  T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* memory, std::size_t count) {
    platform::wipe(memory, count * sizeof(T));
    std::allocator<T>().deallocate(memory, count);
  }
  friend bool operator==(const WipingAllocator&, const WipingAllocator&) { return true; }
};

using SecretBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

// Empties the bytes, and wipes and releases their memory. Assigning {} or calling clear() would keep the memory as it
// is.
inline void wipeAndFree(SecretBytes& bytes) { SecretBytes().swap(bytes); }

}  // namespace tavrin
