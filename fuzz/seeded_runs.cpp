// Runs a fuzz target without libFuzzer: on random inputs, the same ones each time. The argument is their number.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  const int runs = argc > 1 ? std::atoi(argv[1]) : 200;
  std::mt19937 random(1);
  std::vector<std::uint8_t> input(6000);
  for (int run = 0; run < runs; ++run) {
    for (std::uint8_t& byte : input) byte = static_cast<std::uint8_t>(random());
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
}
