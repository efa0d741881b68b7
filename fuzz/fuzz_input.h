// What fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

// Ends the program, which a fuzzer reports, unless the fact is true.
inline void requireThat(bool fact) {
  if (!fact) std::abort();
}

// The bytes of one input, read as choices. After the last byte every choice is 0.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool isEmpty() const { return size_ == 0; }

  std::uint8_t byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  std::size_t below(std::size_t count) { return byte() % count; }
  bool chance(unsigned of256) { return byte() < of256; }

  std::string text(std::size_t longest) {
    std::string text(below(longest + 1), '\0');
    for (char& character : text) character = static_cast<char>(byte());
    return text;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};
