// Files that are changed by replacing them whole.
#pragma once

#include "softtoken/platform.h"

namespace softtoken {

// writeFile() to <file>.new, then putInPlace(). On failure `file` is unchanged and <file>.new is removed. The next call
// overwrites a <file>.new that a killed writer has left. For one writer at a time.
void replaceFile(const std::filesystem::path& file, ByteView content);

// The path with a suffix added to its last component.
std::filesystem::path withSuffix(std::filesystem::path path, const char* suffix);

}  // namespace softtoken
