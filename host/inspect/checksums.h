// The checksums that the converter stores of a container's sections (convert/section_checksums.h),
// made anew from the sections of a file.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "container/zym2_reader.h"
#include "convert/section_checksums.h"

namespace zym {

struct SectionChecksum {
  std::string_view key;
  kel::zym2::SectionType section;
};

constexpr std::array<SectionChecksum, 5> kSectionChecksums = {{
    {kel::convert::kTokenizerChecksumKey, kel::zym2::SectionType::Tokenizer},
    {kel::convert::kTextChecksumKey, kel::zym2::SectionType::Text},
    {kel::convert::kTensorIndexChecksumKey, kel::zym2::SectionType::TensorIndex},
    {kel::convert::kWeightDataChecksumKey, kel::zym2::SectionType::WeightData},
    {kel::convert::kQuantInfoChecksumKey, kel::zym2::SectionType::QuantInfo},
}};

// onBytes is told of every stretch of bytes that has been read; may be null.
std::string checksumText(const uint8_t* data, uint64_t nBytes,
                         const std::function<void(uint64_t)>& onBytes);

}  // namespace zym
