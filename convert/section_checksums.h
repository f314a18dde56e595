// XXH3-128 checksums of a container's sections, made while ZYM2Writer writes it, and stored in the
// metadata. The metadata section itself has none, since it holds them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "container/tokenizer_data.h"
#include "container/zym2_format.h"
#include "container/zym2_writer.h"
#include "quant/quant_type.h"

struct XXH3_state_s;

namespace kel::convert {

// Metadata keys. Values: 32 lower-case hexadecimal digits, the high half first.
constexpr std::string_view kTokenizerChecksumKey = "zym.xxh3_128.tokenizer";
constexpr std::string_view kTextChecksumKey = "zym.xxh3_128.text";  // checked, but never written
constexpr std::string_view kTensorIndexChecksumKey = "zym.xxh3_128.tensor_index";
constexpr std::string_view kWeightDataChecksumKey = "zym.xxh3_128.weight_data";
constexpr std::string_view kQuantInfoChecksumKey = "zym.xxh3_128.quant_info";

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

// Told of everything that the writer is told of, in the same order. Lays tensors out as the writer
// does: each begins at a multiple of 64 bytes, with zeros in between.
class SectionChecksums {
 public:
  void beginTensor(std::string_view name, QuantType type, const std::vector<uint64_t>& dims);
  void writeTensorData(const void* data, size_t nBytes);
  // Adds the metadata entries. The writer has all tensors, writes quant info, and no text section.
  void addTo(ZYM2Writer& writer, const TokenizerData& tokenizer);

 private:
  Checksum weights;
  uint64_t weightBytes = 0;
  std::vector<zym2::TensorEntry> index;
};

}  // namespace kel::convert
