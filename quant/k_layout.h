// Where the scales, minimums and codes of a Q4_K or Q5_K super-block lie, for its encoders. Private
// to quant/.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "quant/block_sizes.h"

namespace kel::quant {

constexpr size_t kSubBlockLen = 32;  // Q4_K and Q5_K
constexpr size_t kSubBlocks = kSuperBlockLen / kSubBlockLen;
constexpr int kMaxScaleCode = 63;

// d and dmin come first, then the packed scales.
constexpr size_t kScalesAt = 4;

// Eight scales and minimums 0..63 into 12 bytes; the layout stands in k_scales.cpp.
inline void packScaleCodes(const int* scales, const int* mins, uint8_t* scales12) {
  for (size_t j = 0; j < 4; ++j) {
    scales12[j] = static_cast<uint8_t>(scales[j] | scales[j + 4] >> 4 << 6);
    scales12[j + 4] = static_cast<uint8_t>(mins[j] | mins[j + 4] >> 4 << 6);
    scales12[j + 8] = static_cast<uint8_t>((scales[j + 4] & 15) | (mins[j + 4] & 15) << 4);
  }
}

// Low four bits of 256 codes into 128 bytes: group g of 64 codes in bytes 32g..32g+31.
inline void packNibbles(const uint8_t* codes, uint8_t* qs) {
  for (size_t g = 0; g < 4; ++g) {
    const uint8_t* group = codes + 64 * g;
    for (size_t l = 0; l < 32; ++l) {
      qs[32 * g + l] = static_cast<uint8_t>((group[l] & 15) | (group[l + 32] & 15) << 4);
    }
  }
}

inline void packCodesQ4K(const uint8_t* codes, uint8_t* block) {
  packNibbles(codes, block + 16);
}

inline void packCodesQ5K(const uint8_t* codes, uint8_t* block) {
  uint8_t* qh = block + 16;
  std::fill_n(qh, kSubBlockLen, uint8_t{0});
  for (size_t j = 0; j < kSubBlocks; ++j) {
    for (size_t l = 0; l < kSubBlockLen; ++l) {
      qh[l] |= static_cast<uint8_t>(codes[kSubBlockLen * j + l] >> 4 << j);
    }
  }
  packNibbles(codes, block + 48);
}

}  // namespace kel::quant
