// Names for the numbers in log lines.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// The message with a name in parentheses after each number that has one: statuses of the device library, mechanisms,
// attributes, object classes, key types, session states and kinds of users.
std::string withNames(std::string_view message);

}  // namespace tool
