// XXH3-128 checksums of a container's sections: how they are made, and the metadata keys under
// which ZYM2Writer stores them, as the last entries of the metadata.
//
// In the writer's library: the plugin checks no contents and links nothing for it.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "container/zym2_format.h"

struct XXH3_state_s;

namespace kel {

struct SectionChecksum {
  const char* key;
  zym2::SectionType section;
};

// In the order in which the writer stores them. Values: 32 lower-case hexadecimal digits, the high
// half first.
constexpr std::array<SectionChecksum, 5> kSectionChecksums = {{
    {"zym.xxh3_128.tokenizer", zym2::SectionType::Tokenizer},
    {"zym.xxh3_128.text", zym2::SectionType::Text},
    {"zym.xxh3_128.tensor_index", zym2::SectionType::TensorIndex},
    {"zym.xxh3_128.weight_data", zym2::SectionType::WeightData},
    {"zym.xxh3_128.quant_info", zym2::SectionType::QuantInfo},
}};

// Every such key begins so.
constexpr std::string_view kChecksumKeyPrefix = "zym.xxh3_128.";
// The metadata's own, behind all others: the checksum of the section without its last 32 bytes,
// which are the digits of this one. What it covers includes its key and their number.
constexpr const char* kMetadataChecksumKey = "zym.xxh3_128.metadata";
constexpr size_t kChecksumDigits = 32;

// One run of bytes. Throws std::bad_alloc when the library has no memory.
class Checksum {
 public:
  Checksum();
  void update(const void* data, size_t nBytes);
  std::string hex() const;

 private:
  struct Free {
    void operator()(XXH3_state_s* state) const;
  };
  std::unique_ptr<XXH3_state_s, Free> state;
};

}  // namespace kel
