#include "objects/ca_installation.h"

namespace tavrin {

std::string extractCommonName(std::string_view name) {
  static constexpr std::string_view tag = "CN=";
  for (auto start = name.find(tag); start != std::string_view::npos; start = name.find(tag, start + 1)) {
    const std::string_view rest = name.substr(start + tag.size());
    const std::string_view commonName = rest.substr(0, rest.find_first_of(",\n\r"));
    if (!commonName.empty()) return std::string(commonName);
  }
  return std::string(name);
}

}  // namespace tavrin
