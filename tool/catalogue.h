// Explanations of the module's error lines, for `log --explain` and for the report.
#pragma once

#include <string_view>

namespace tool {

struct Explanation {
  std::string_view pattern;  // a part of the message
  std::string_view meaning;  // what happened, a sentence
  std::string_view remedy;   // what to do, a sentence
};

// The explanation of an error line's message; null when there is none.
const Explanation* explanationOf(std::string_view message);

}  // namespace tool
