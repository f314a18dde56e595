// Writes safetensors files for tests, by the published layout and with no code of the importer.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "tests/convert/gguf_builder.h"
#include "tests/support/temp_dir.h"

namespace kel::test {

struct SafetensorsBuilder {
  struct Tensor {
    std::string name;
    std::string dtype;
    std::vector<uint64_t> shape;  // outermost first
    Bytes data{};
    uint64_t holeBytes = 0;  // in place of data
  };
  std::vector<Tensor> tensors;

  static uint64_t sizeOf(const Tensor& tensor) {
    return tensor.data.empty() ? tensor.holeBytes : tensor.data.size();
  }

  std::string header() const {
    std::ostringstream json;
    json << R"({"__metadata__":{"format":"pt"})";
    uint64_t at = 0;
    for (const Tensor& tensor : tensors) {
      json << ",\"" << tensor.name << R"(":{"dtype":")" << tensor.dtype << R"(","shape":[)";
      for (size_t i = 0; i < tensor.shape.size(); ++i) {
        json << (i == 0 ? "" : ",") << tensor.shape[i];
      }
      json << R"(],"data_offsets":[)" << at << ',' << at + sizeOf(tensor) << "]}";
      at += sizeOf(tensor);
    }
    json << "}  ";
    return json.str();
  }

  void write(const std::string& path) const {
    const std::string text = header();
    Bytes start;
    appendNumber<uint64_t>(start, text.size());
    appendText(start, text);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(start.data()),
              static_cast<std::streamsize>(start.size()));
    uint64_t at = start.size();
    for (const Tensor& tensor : tensors) {
      out.seekp(static_cast<std::streamoff>(at));
      out.write(reinterpret_cast<const char*>(tensor.data.data()),
                static_cast<std::streamsize>(tensor.data.size()));
      at += sizeOf(tensor);
    }
    out.close();
    std::filesystem::resize_file(path, at);
  }
};

}  // namespace kel::test
