// Small helpers that several subsystems share.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavrin {

class Utils {
 public:
  virtual ~Utils() = default;

  // Cuts the text at every occurrence of the delimiter; the piece after the last one is kept, so there is always one
  // piece, and pieces may be empty.
  std::vector<std::string> split(std::string_view text, std::string_view delimiter) const;

  // Milliseconds, through the platform's own sleep.
  void sleep(unsigned milliseconds) const;
};

extern Utils& utils;

}  // namespace tavrin
