/* Runs a fuzz target with each file of a folder. The last name that it prints is that of a fault.
 */
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz.h"

/* The bytes lie in memory of just their number, so that a sanitizer sees a read behind them. */
int main(int /*argc*/, char** argv) {
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    fprintf(stderr, "%s\n", entry.path().c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
}
