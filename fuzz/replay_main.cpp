// Stands in for libFuzzer's main in normal builds: feeds every seed file of the folders named on
// the command line (and the empty input) through the fuzz target once. Exit status 0 unless it
// crashes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "tests/support/file_contents.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  size_t replayed = 1;
  LLVMFuzzerTestOneInput(nullptr, 0);
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i], error)) {
      const std::string bytes = kel::test::contentsOf(entry.path());
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++replayed;
    }
    if (error) {
      std::fprintf(stderr, "cannot read %s: %s\n", argv[i], error.message().c_str());
      return 1;
    }
  }
  std::printf("%zu inputs replayed\n", replayed);
  return 0;
}
