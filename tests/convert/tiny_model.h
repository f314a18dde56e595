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

// withValues false: names and shapes alone, for files with holes.
std::vector<TinyTensor> tinyModel(bool withValues);

// The bytes of float values in F32, F16 or BF16 ("F32", ...). Values must be exact in the type.
Bytes floatBytes(const std::vector<float>& values, const std::string& dtype);

// A GGUF file with the metadata and tensors of real ones. type: GGUF number of the matrices' type,
// 0, 1 or 30 with values. Without values the tensors are holes.
GgufBuilder tinyGguf(const std::vector<TinyTensor>& model, uint32_t type = 0);
GgufBuilder::Tensor& tensorNamed(GgufBuilder& file, const std::string& name);
void addTinyMetadata(GgufBuilder& file, const std::string& omit = "");

// The same tensors as the dialect writes them that bundles all parts of a model in one file: other
// names, head counts per layer, and four tensors that text does not need.
GgufBuilder bundledGguf(const GgufBuilder& plain);

// A checkpoint directory. Vectors are F32; dtype is that of matrices.
struct TinyDirectory {
  SafetensorsBuilder weights;
  std::string config;
  std::string tokenizer;
  std::string tokenizerConfig = R"({"eos_token":"<|im_end|>","chat_template":"x"})";

  void write(const std::string& folder) const;
};
TinyDirectory tinyDirectory(const std::vector<TinyTensor>& model, const std::string& dtype);
SafetensorsBuilder::Tensor& tensorNamed(SafetensorsBuilder& file, const std::string& name);

}  // namespace kel::test
