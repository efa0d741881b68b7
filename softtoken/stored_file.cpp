#include "softtoken/stored_file.h"

#include "softtoken/failure.h"

namespace softtoken {

namespace fs = std::filesystem;

void replaceFile(const fs::path& file, ByteView content) {
  const fs::path fresh = withSuffix(file, ".new");
  writeFile(fresh, content);
  try {
    putInPlace(fresh, file);
  } catch (const Failure&) {
    std::error_code ignored;
    fs::remove(fresh, ignored);
    throw;
  }
}

fs::path withSuffix(fs::path path, const char* suffix) {
  path += suffix;
  return path;
}

}  // namespace softtoken
