// A checkpoint whose conversion takes seconds and gigabytes, without disk space of its own.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "tests/convert/tiny_model.h"
#include "tests/support/json_text.h"

namespace kel::test {

// Writes it into folder. The feed-forward matrices are files with holes.
inline void writeSlowCheckpoint(const std::string& folder) {
  constexpr uint64_t kWidth = 409'600;
  TinyDirectory source = tinyDirectory(tinyModel(false), "BF16");
  for (SafetensorsBuilder::Tensor& tensor : source.weights.tensors) {
    if (tensor.name.find(".mlp.") == std::string::npos) {
      continue;
    }
    for (uint64_t& dim : tensor.shape) {
      dim = dim == kTinyFeedForward ? kWidth : dim;
    }
    tensor.holeBytes *= kWidth / kTinyFeedForward;
  }
  nlohmann::json config = parseJson(source.config);
  nlohmann::json& sizes = config.contains("text_config") ? config["text_config"] : config;
  sizes["intermediate_size"] = kWidth;
  source.config = config.dump();
  source.write(folder);
}

}  // namespace kel::test
