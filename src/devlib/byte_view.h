#pragma once

#include <cstdint>
#include <span>

namespace tavrin {

// Bytes that somebody else owns. In `src/` the word "bytes" of a type's name always means such a view or an owner's
// name says so (SecretBytes).
using ByteView = std::span<const std::uint8_t>;

}  // namespace tavrin
