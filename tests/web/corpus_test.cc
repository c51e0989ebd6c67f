#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <vector>

// The inputs of the fuzzer as an ordinary test, whole, cut off at every byte, and with every byte changed: the fuzzer
// ends the program when a check of its own fails.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> corpus() {
  std::vector<Bytes> inputs;
  for (const auto& entry : std::filesystem::directory_iterator("fuzz/corpus/request")) {
    std::ifstream file(entry.path(), std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

TEST(RequestCorpus, Whole) {
  const std::vector<Bytes> inputs = corpus();
  EXPECT_GE(inputs.size(), 13U);
  for (const Bytes& input : inputs)
    EXPECT_EQ(LLVMFuzzerTestOneInput(input.data(), input.size()), 0);
}

TEST(RequestCorpus, CutOff) {
  for (const Bytes& input : corpus()) {
    for (std::size_t size = 0; size < input.size(); ++size) {
      const Bytes start(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(LLVMFuzzerTestOneInput(start.data(), start.size()), 0);
    }
  }
}

TEST(RequestCorpus, Changed) {
  constexpr std::uint8_t others[] = {0x00, '\t', '\n', '\r', ' ', ',', ':', '#', 0x7f, 0x80, 0xff};
  for (const Bytes& input : corpus()) {
    for (std::size_t place = 0; place < input.size(); ++place) {
      Bytes changed = input;
      for (const std::uint8_t other : others) {
        changed[place] = other;
        EXPECT_EQ(LLVMFuzzerTestOneInput(changed.data(), changed.size()), 0);
      }
    }
  }
}

}  // namespace
