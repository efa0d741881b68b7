#include "slots/firmware_version.h"

#include <algorithm>
#include <cstdlib>

#include "log/utils.h"

namespace tavrin {
namespace {

std::int32_t leadingNumber(const std::string& text) {
  // Wider than the result on every platform, so that a number too large does not differ between them.
  return static_cast<std::int32_t>(std::strtoll(text.c_str(), nullptr, 10));
}

std::int32_t numberAt(const std::vector<std::int32_t>& numbers, std::size_t index) {
  return index < numbers.size() ? numbers[index] : 0;
}

}  // namespace

std::vector<std::int32_t> versionNumbers(std::string_view version) {
  const std::vector<std::string> pieces = utils.split(version, ".");
  std::vector<std::int32_t> numbers(pieces.size());
  std::transform(pieces.begin(), pieces.end(), numbers.begin(), leadingNumber);
  return numbers;
}

int compareVersions(std::string_view left, std::string_view right) {
  const auto leftNumbers = versionNumbers(left);
  const auto rightNumbers = versionNumbers(right);
  for (std::size_t i = 0; i < std::max(leftNumbers.size(), rightNumbers.size()); ++i) {
    const std::int32_t leftNumber = numberAt(leftNumbers, i);
    const std::int32_t rightNumber = numberAt(rightNumbers, i);
    if (leftNumber != rightNumber) return leftNumber < rightNumber ? -1 : 1;
  }
  return 0;
}

CK_VERSION majorAndMinor(std::string_view version) {
  const auto numbers = versionNumbers(version);
  return {static_cast<CK_BYTE>(numberAt(numbers, 0)), static_cast<CK_BYTE>(numberAt(numbers, 1))};
}

}  // namespace tavrin
