// Writes the seed containers of container_fuzzer into the folder named on the command line.
#include <cstdio>
#include <exception>
#include <string>

#include "tests/support/container_samples.h"
#include "tests/support/random_model.h"

namespace {

using kel::ZYM2Writer;
using kel::test::require;

// A model of a few kilobytes with everything that a container states of its shape.
kel::test::RandomModelSpec tinyModel() {
  kel::test::RandomModelSpec spec{.hidden = 8, .ffn = 8, .vocab = 6, .statesShape = true};
  kel::ModelShape& shape = spec.shape;
  shape.layers = 2;
  shape.fullLayers = kel::LayerSet::every(2, 2);
  shape.queryHeads = 2;
  shape.kvHeads = 1;
  shape.headDim = 4;
  shape.ropeDim = 2;
  shape.linearKeyHeads = 1;
  shape.linearValueHeads = 2;
  shape.linearKeyDim = 4;
  shape.linearValueDim = 4;
  shape.contextLength = 8;
  return spec;
}

void writeModels(const std::string& folder) {
  kel::test::RandomModelSpec spec = tinyModel();
  spec.types = {kel::QuantType::F32, kel::QuantType::BF16};
  spec.biases = true;
  require(kel::test::writeRandomModel(folder + "/model.zym", spec));

  spec = tinyModel();
  spec.hidden = 32;
  spec.types = {kel::QuantType::Q8_0};
  spec.shape.ownOutput = true;
  spec.shape.fullLayers = {};  // listed, where they are not at an interval
  spec.shape.fullLayers.add(0);
  spec.shape.layers = 3;
  require(kel::test::writeRandomModel(folder + "/model_of_listed_layers.zym", spec));
}

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
    writeModels(argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "container_seeds: %s\n", error.what());
    return 1;
  }
  return 0;
}
