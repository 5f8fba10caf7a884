// Stands in for libFuzzer in the tests: gives a fuzzer the inputs of its corpus, as they are and
// changed at random, always in the same way. Usage: PROGRAM CORPUS_DIRECTORY
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz/fuzzer.h"

namespace {

constexpr int kVariants = 40;  // of each input

void Run(const std::string& input) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

std::vector<std::string> InputsIn(const char* directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  std::vector<std::string> inputs;
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

// Cuts, doubles, moves in from elsewhere, or changes a byte.
void Change(std::string& input, const std::vector<std::string>& all, std::mt19937_64& random) {
  const auto below = [&random](std::size_t bound) { return bound == 0 ? 0 : random() % bound; };
  const std::size_t at = below(input.size()), length = below(40);
  const std::string& other = all[below(all.size())];
  switch (below(4)) {
    case 0:
      input.erase(at, length);
      break;
    case 1:
      input.insert(at, input.substr(at, length));
      break;
    case 2:
      input.insert(at, other.substr(below(other.size()), length));
      break;
    default:
      if (!input.empty()) input[at] = static_cast<char>(random());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: PROGRAM CORPUS_DIRECTORY\n", stderr);
    return 2;
  }
  const std::vector<std::string> inputs = InputsIn(argv[1]);
  if (inputs.empty()) return 1;
  std::mt19937_64 random(1);
  for (const std::string& input : inputs) {
    Run(input);
    std::string changed = input;
    for (int i = 0; i < kVariants; ++i) {
      if (i % 8 == 0) changed = input;
      Change(changed, inputs, random);
      Run(changed);
    }
  }
  std::printf("%zu inputs and %zu others\n", inputs.size(), inputs.size() * kVariants);
  return 0;
}
