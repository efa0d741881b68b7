// tavrin-tool token ...
#pragma once

#include <string>
#include <vector>

namespace tool {

// One line for each command, for the help text.
std::string tokenUsage();

// Carries out the words behind "token". Throws UsageError, or softtoken::Failure with what went wrong.
int runTokenCommand(const std::vector<std::string>& words);

}  // namespace tool
