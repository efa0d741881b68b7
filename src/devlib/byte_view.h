#pragma once

#include <cstdint>
#include <span>

namespace tavrin {

// Bytes that somebody else owns. They must stay in place while the view is used.
using ByteView = std::span<const std::uint8_t>;

}  // namespace tavrin
