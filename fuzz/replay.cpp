// Runs the fuzz target once over each file named on the command line, without a fuzzer.

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int count, char** paths) {
  for (int i = 1; i < count; ++i) {
    std::ifstream file(paths[i], std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
      std::fprintf(stderr, "Cannot read %s\n", paths[i]);
      return 1;
    }
    std::printf("%s\n", paths[i]);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  }
  return count > 1 ? 0 : 1;
}
