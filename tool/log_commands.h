// tavrin-tool log ...
#pragma once

#include <string>
#include <vector>

namespace tool {

extern const char* const logUsage;

// What a level writes to the log, in a word.
const char* levelMeaning(int level);

// The level and its meaning.
std::string levelText(int level);

// Carries out the words behind "log". Throws UsageError, or softtoken::Failure with what went wrong.
int runLogCommand(const std::vector<std::string>& words);

}  // namespace tool
