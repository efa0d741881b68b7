// The output of token list and token show.
#pragma once

#include <string>

namespace tool {

void printTokens(bool json);

// Throws Failure when there is no such token, or it cannot be read.
void printToken(const std::string& name, bool json);

// The serial number of a token that can be read.
std::string serialOf(const std::string& name);

}  // namespace tool
