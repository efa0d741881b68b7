#pragma once

#include <cstdint>
#include <span>

namespace tavrin {

// A view of bytes that another object owns. They must stay valid while the view is used.
using ByteView = std::span<const std::uint8_t>;

}  // namespace tavrin
