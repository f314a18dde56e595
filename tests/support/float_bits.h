// Floats as tests compare them that ask for the same bits: -0 is not 0, and a NaN is itself.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace kel::test {

using Bits = std::vector<uint32_t>;

inline Bits bitsOf(std::span<const float> values) {
  Bits bits(values.size());
  if (!values.empty()) {
    std::memcpy(bits.data(), values.data(), values.size_bytes());
  }
  return bits;
}

}  // namespace kel::test
