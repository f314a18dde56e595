// A small model of the family for importer tests, in the two forms that source files have: as the
// training framework stores it and as the runtime uses it. Each value is computed from the
// definition here, with no code of the importer.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/convert/gguf_builder.h"
#include "tests/convert/safetensors_builder.h"

namespace kel::test {

struct TinyTensor {
  std::string name;            // in container and GGUF files
  std::string checkpointName;  // in checkpoints
  std::vector<uint64_t> dims;  // innermost first
  bool matrix = false;
  std::vector<float> checkpoint;  // values as checkpoints have them; exact in half precision
  std::vector<float> runtime;     // values as the runtime uses them
};

constexpr uint64_t kTinyHidden = 32;
constexpr uint64_t kTinyFeedForward = 256;
constexpr uint64_t kTinyVocab = 40;

// The numbers of a model. By default those of the family's 4B but for hidden size, feed-forward
// width and vocabulary.
struct TinyShape {
  uint64_t layers = 32;
  uint64_t interval = 4;  // every such layer is full attention
  uint64_t queryHeads = 16;
  uint64_t kvHeads = 4;
  uint64_t headDim = 256;
  uint64_t ropeDim = 64;
  uint64_t keyHeads = 16;  // of linear attention
  uint64_t valueHeads = 32;
  uint64_t keyDim = 128;
  uint64_t valueDim = 128;
  uint64_t hidden = kTinyHidden;
  uint64_t feedForward = kTinyFeedForward;
  bool ownOutput = false;
  bool prediction = false;  // with a layer of multi-token prediction

  uint64_t channels() const { return 2 * keyHeads * keyDim + valueHeads * valueDim; }
};

// withValues false: names and shapes alone, for files with holes.
std::vector<TinyTensor> tinyModel(bool withValues, const TinyShape& shape = {});

// The bytes of float values in F32, F16 or BF16 ("F32", ...). Values must be exact in the type.
Bytes floatBytes(const std::vector<float>& values, const std::string& dtype);

// A GGUF file with the metadata and tensors of real ones. type: GGUF number of the matrices' type,
// 0, 1 or 30 with values. Without values the tensors are holes.
GgufBuilder tinyGguf(const std::vector<TinyTensor>& model, uint32_t type = 0,
                     const TinyShape& shape = {});
GgufBuilder::Tensor& tensorNamed(GgufBuilder& file, const std::string& name);
void addTinyMetadata(GgufBuilder& file, const std::string& omit = "", const TinyShape& shape = {});

// The same tensors as the dialect writes them that bundles all parts of a model in one file: other
// names, head counts per layer, and four tensors that text does not need.
GgufBuilder bundledGguf(const GgufBuilder& plain, const TinyShape& shape = {});

// A checkpoint directory. Vectors are F32; dtype is that of matrices.
struct TinyDirectory {
  SafetensorsBuilder weights;
  std::string config;
  std::string tokenizer;
  std::string tokenizerConfig = R"({"eos_token":"<|im_end|>","chat_template":"x"})";

  void write(const std::string& folder) const;
};
TinyDirectory tinyDirectory(const std::vector<TinyTensor>& model, const std::string& dtype,
                            const TinyShape& shape = {});
SafetensorsBuilder::Tensor& tensorNamed(SafetensorsBuilder& file, const std::string& name);

}  // namespace kel::test
