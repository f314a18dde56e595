// An input vector in fixed point, as the products of the K formats take it.
//
// The elements of a super-block share one power of two: element = fixed * 2^-k, rounded to nearest,
// ties to even, where k is the largest for which no |fixed| of the super-block passes 0x7F7F7F00,
// at most 108, and 8 where all elements are zero. A fixed-point number is four limbs of eight bits,
// each from -128 to 127, so that byte products with unsigned codes sum up exactly in integers:
//   fixed = limb[3] * 2^24 + limb[2] * 2^16 + limb[1] * 2^8 + limb[0]
//
// The last limb, limb[0], is dropped (set to zero) unless the sum of |fixed| / 256, each rounded
// down, is below 2^27: the average below 1/16 of the range, as in a super-block that an outlier or
// two rule. docs/kernels.md states the error of both.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qwen35 {

constexpr size_t kInputLimbs = 4;
constexpr size_t kGroupSuperBlocks = 4;                // super-blocks of one QuantisedInput
constexpr size_t kGroupLen = kGroupSuperBlocks * 256;  // elements of one
constexpr int32_t kLargestFixed = 0x7F7F7F00;
constexpr int32_t kOutlierSum = 1 << 27;
constexpr int kMaxFixedShift = 108;  // products with half-precision scales stay normal numbers

// Magnitudes from here on are not quantised: the sum of a sub-block might pass the range of floats.
constexpr float kInputLimit = 0x1p122f;

// Four super-blocks of input; those past the end of the vector are all zero. Limbs, sums and
// scales lie as registers load them.
struct alignas(64) QuantisedInput {
  // [super-block][pair][limb][half][element]: sub-block s is half s % 4 / 2 of pair
  // s / 4 * 2 + s % 2. A pair are the codes that 64 bytes of a row hold in their low, or in their
  // high, four bits.
  int8_t limbs[kGroupSuperBlocks][4][kInputLimbs][2][32];

  // The sum of the elements of each sub-block: exact in fixed point, then rounded to single
  // precision.
  float sums[kGroupSuperBlocks][8];

  float scales[kGroupSuperBlocks];  // 2^(8 - k), the weight of limb 1

  bool keepsLastLimb[kGroupSuperBlocks];
};

// The upper limbs of a super-block as words, for products of several inputs. Limbs 1 and 2 are one
// number, shifted by kMiddleShift so that it fits. [pair][odd]: the even elements of both
// sub-blocks of a pair of limbs, or the odd ones, the first sub-block first.
struct alignas(64) InputWords {
  int16_t middle[4][2][32];  // limb[2] * 256 + limb[1] + kMiddleShift
  int16_t upper[4][2][32];   // limb[3]
};

constexpr int16_t kMiddleShift = 128;

// Groups of an input of `cols` elements, a multiple of 256.
constexpr size_t quantisedGroups(size_t cols) {
  return (cols / 256 + kGroupSuperBlocks - 1) / kGroupSuperBlocks;
}

}  // namespace qwen35
