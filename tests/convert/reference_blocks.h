// The block formats of GGUF files once more, decoded in double precision from their definitions.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace kel::test {

struct ReferenceFormat {
  const char* name;
  uint32_t ggufType;
  size_t blockLen;
  size_t blockBytes;
  bool kept;                       // stored as it is by default
  std::vector<size_t> halfFields;  // where half-precision numbers lie in a block
  // Value of element i of a block.
  std::function<double(const uint8_t* block, size_t i)> value;

  std::vector<double> decodeAll(const Bytes& blocks) const;
};

// F32, F16, BF16 and every quantised type that importers take.
const std::vector<ReferenceFormat>& referenceFormats();
const ReferenceFormat& formatNamed(const std::string& name);

// Blocks of random codes whose half-precision fields are small finite numbers.
Bytes randomBlocks(const ReferenceFormat& format, size_t elements, std::mt19937& random);

}  // namespace kel::test
