#include "log/utils.h"

#include <new>

#include "platform/platform.h"

namespace tavrin {
namespace {

// Never destroyed, because lines are logged until the process ends.
alignas(Utils) std::byte utilsStorage[sizeof(Utils)];

}  // namespace

Utils& utils = *::new (utilsStorage) Utils;

std::vector<std::string> Utils::split(std::string_view text, std::string_view delimiter) const {
  std::vector<std::string> pieces;
  pieces.reserve(4);  // as many as a version has
  std::size_t start = 0;
  for (auto end = text.find(delimiter); end != std::string_view::npos; end = text.find(delimiter, start)) {
    pieces.emplace_back(text.substr(start, end - start));
    start = end + delimiter.size();
  }
  pieces.emplace_back(text.substr(start));
  return pieces;
}

void Utils::sleep(unsigned milliseconds) const { platform::sleepMilliseconds(milliseconds); }

}  // namespace tavrin
