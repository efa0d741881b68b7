// Leaves out of a status what identifies its user, for reports that are passed on. The same name always gets the same
// number. Called before the findings are made, so that no finding contains a name.
#pragma once

#include "tool/status.h"

namespace tool {

// Replaces labels, names, serial numbers and IDs by numbers, and paths by file names. IDs are replaced because many are
// digests of keys.
void anonymise(ProbedModule& module);

// Replaces the names of certificates' subjects and issuers.
void anonymise(std::vector<TokenStatus>& tokens);

std::string fileNameIn(const std::string& path);

}  // namespace tool
