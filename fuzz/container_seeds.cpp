// Writes the seed containers of container_fuzzer into the folder named on the command line.
#include <cstdio>
#include <exception>
#include <string>

#include "tests/support/container_samples.h"

namespace {

using kel::ZYM2Writer;
using kel::test::require;

void writeSeeds(const std::string& folder) {
  kel::test::writeFile(folder + "/sample.zym", kel::test::sampleImage().bytes);

  ZYM2Writer writer;
  require(writer.create(folder + "/nothing.zym"));
  require(writer.finish());

  require(writer.create(folder + "/tokenizer_only.zym"));
  writer.setTokenizer(kel::test::sampleTokenizer());
  writer.setQuantInfo(false);
  require(writer.finish());

  require(writer.create(folder + "/odd_tensors.zym"));
  writer.setTokenizer({});
  require(writer.addTensor(std::string(64, 'n'), kel::QuantType::IQ4_XS, {1, 2, 3, 4}, "abc", 3));
  require(writer.addTensor("scalar", kel::QuantType::F16, {}, "ab", 2));
  require(writer.finish());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: container_seeds FOLDER\n");
    return 2;
  }
  try {
    writeSeeds(argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "container_seeds: %s\n", error.what());
    return 1;
  }
  return 0;
}
