// Dotted firmware versions, compared number by number.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "pkcs11.h"

namespace tavrin {

// The numbers of a version text: what stands at the head of each piece between points, read as atoi reads it; 0 for a
// piece without a number.
std::vector<std::int32_t> versionNumbers(std::string_view version);

// -1, 0 or 1 as the left version is lower, equal or higher; a list that runs out counts as zeros.
int compareVersions(std::string_view left, std::string_view right);

// The first two numbers, each cut to 8 bits.
CK_VERSION majorAndMinor(std::string_view version);

}  // namespace tavrin
