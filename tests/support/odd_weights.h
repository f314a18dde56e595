// Rewrites a container so that its tensors are read correctly by those alone who take any address
// for a tensor and no vector's label for granted.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "quant/quant_type.h"
#include "tests/support/temp_dir.h"
#include "tests/support/zym2_patch.h"

namespace kel::test {

inline void editEntries(ContainerImage& image,
                        const std::function<void(zym2::TensorEntry&)>& edit) {
  const size_t index = image.offsetOf(zym2::SectionType::TensorIndex);
  for (size_t i = 0; i < image.get<uint32_t>(kTensorCountAt); ++i) {
    const size_t at = index + i * sizeof(zym2::TensorEntry);
    auto entry = image.get<zym2::TensorEntry>(at);
    edit(entry);
    image.set(at, entry);
  }
}

// Every tensor starts one byte further on, at an odd address.
inline void shiftWeights(const std::string& path) {
  ContainerImage image(readFile(path));
  const auto start =
      image.bytes.begin() + static_cast<ptrdiff_t>(image.offsetOf(zym2::SectionType::WeightData));
  const auto size = static_cast<ptrdiff_t>(image.sizeOf(zym2::SectionType::WeightData));
  Bytes weights(1);
  weights.insert(weights.end(), start, start + size);
  image.replace(zym2::SectionType::WeightData, weights);
  editEntries(image, [](zym2::TensorEntry& entry) { ++entry.offset; });
  writeFile(path, image.fixCrc().bytes);
}

// Vectors and convolution taps are labelled with a type that they do not have, and with its size.
inline void relabelVectors(const std::string& path) {
  ContainerImage image(readFile(path));
  editEntries(image, [](zym2::TensorEntry& entry) {
    if (entry.rank == 1 || std::string_view(entry.name).ends_with("conv1d.weight")) {
      entry.type = static_cast<uint16_t>(QuantType::Q4_K);
      entry.byteSize = 0;
    }
  });
  writeFile(path, image.bytes);
}

}  // namespace kel::test
