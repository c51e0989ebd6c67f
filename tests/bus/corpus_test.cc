#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <vector>

// The inputs of one fuzzer as an ordinary test: whole, cut off at every byte, and with every byte changed. The fuzzer
// ends the program when a check of its own fails. TARN_CORPUS names the folder below fuzz/corpus.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> corpus() {
  std::vector<Bytes> inputs;
  for (const auto& entry : std::filesystem::directory_iterator("fuzz/corpus/" TARN_CORPUS)) {
    std::ifstream file(entry.path(), std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

void feed(const Bytes& input) {
  EXPECT_EQ(LLVMFuzzerTestOneInput(input.data(), input.size()), 0);
}

TEST(Corpus, Whole) {
  const std::vector<Bytes> inputs = corpus();
  EXPECT_GE(inputs.size(), 14U);
  for (const Bytes& input : inputs)
    feed(input);
}

TEST(Corpus, CutOff) {
  for (const Bytes& input : corpus()) {
    for (auto end = input.begin(); end != input.end(); ++end)
      feed(Bytes(input.begin(), end));
  }
}

TEST(Corpus, Changed) {
  constexpr std::uint8_t others[] = {0,   1,    2,    '\n', ',',  '0',  '\'', '\\',
                                     '}', 0x21, 0x28, 0x4D, 0x7f, 0x80, 0xA8, 0xff};
  for (const Bytes& input : corpus()) {
    for (std::size_t place = 0; place < input.size(); ++place) {
      Bytes changed = input;
      for (const std::uint8_t other : others) {
        changed[place] = other;
        feed(changed);
      }
    }
  }
}

}  // namespace
