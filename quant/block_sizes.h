// How long a block of each element type is and how many bytes it takes: the one place that says so.
//
// A row of n elements is ceil(n / block length) consecutive blocks; a plain type has blocks of one
// element. Pure functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "quant/quant_type.h"

namespace kel::quant {

constexpr size_t kBlockLen = 32;        // elements of a Q4_0 or Q8_0 block
constexpr size_t kSuperBlockLen = 256;  // elements of a K-format super-block
constexpr size_t kQ40Bytes = 18;
constexpr size_t kQ80Bytes = 34;
constexpr size_t kQ4KBytes = 144;
constexpr size_t kQ5KBytes = 176;
constexpr size_t kQ6KBytes = 210;
constexpr size_t kIQ4XSBytes = 136;
constexpr size_t kQ8KBytes = 290;  // Q8_K is no type of tensors

struct BlockFormat {
  size_t elements;
  size_t bytes;
};

// Zeros for a value that is no type.
constexpr BlockFormat blockFormat(QuantType type) {
  // In the order of the type numbers.
  constexpr BlockFormat kFormats[] = {
      {1, sizeof(float)},             // F32
      {1, sizeof(uint16_t)},          // F16
      {1, sizeof(uint16_t)},          // BF16
      {kBlockLen, kQ40Bytes},         // Q4_0
      {kBlockLen, kQ80Bytes},         // Q8_0
      {kSuperBlockLen, kQ4KBytes},    // Q4_K
      {kSuperBlockLen, kQ5KBytes},    // Q5_K
      {kSuperBlockLen, kQ6KBytes},    // Q6_K
      {kSuperBlockLen, kIQ4XSBytes},  // IQ4_XS
  };
  const auto index = static_cast<size_t>(type);
  return index < sizeof(kFormats) / sizeof(kFormats[0]) ? kFormats[index] : BlockFormat{0, 0};
}

// Bytes that n elements of a type occupy, a partial last block counted whole; 0 for a value that is
// no type.
size_t quantizedBytes(QuantType type, size_t n);

// The same for Q4_K, Q5_K, Q6_K and IQ4_XS alone; 0 for any other type.
size_t quantizedBytesK(QuantType type, size_t n);

}  // namespace kel::quant
