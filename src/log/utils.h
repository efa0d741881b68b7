// Small helpers that several subsystems share.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavrin {

class Utils {
 public:
  virtual ~Utils() = default;

  // Cuts the text at every occurrence of the delimiter. Pieces may be empty; there is always at least one.
  std::vector<std::string> split(std::string_view text, std::string_view delimiter) const;

  // Sleeps for this number of milliseconds.
  void sleep(unsigned milliseconds) const;
};

extern Utils& utils;

}  // namespace tavrin
