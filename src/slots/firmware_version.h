// Dotted firmware versions, compared number by number.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "pkcs11.h"

namespace tavrin {

// The numbers of a version text. Each piece between points is read as atoi reads it; a piece without a number is 0.
std::vector<std::int32_t> versionNumbers(std::string_view version);

// -1, 0 or 1 as the left version is lower, equal or higher. Missing numbers count as zeros.
int compareVersions(std::string_view left, std::string_view right);

// The first two numbers, each cut to 8 bits.
CK_VERSION majorAndMinor(std::string_view version);

}  // namespace tavrin
