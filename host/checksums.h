// The checksums of a container's sections, stored as metadata by the converter: XXH3, 128 bits, as
// 32 lower-case hexadecimal digits with the high half first. The metadata section has none, since
// it holds them.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "container/zym2_reader.h"

namespace zym {

struct SectionChecksum {
  const char* key;
  kel::zym2::SectionType section;
};

constexpr std::array<SectionChecksum, 5> kSectionChecksums = {{
    {"zym.xxh3_128.tokenizer", kel::zym2::SectionType::Tokenizer},
    {"zym.xxh3_128.text", kel::zym2::SectionType::Text},
    {"zym.xxh3_128.tensor_index", kel::zym2::SectionType::TensorIndex},
    {"zym.xxh3_128.weight_data", kel::zym2::SectionType::WeightData},
    {"zym.xxh3_128.quant_info", kel::zym2::SectionType::QuantInfo},
}};

// onBytes is told of every stretch of bytes that has been read; may be null.
std::string checksumText(const uint8_t* data, uint64_t nBytes,
                         const std::function<void(uint64_t)>& onBytes);

}  // namespace zym
