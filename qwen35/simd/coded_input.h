// An input vector in fixed point, as the products of the K formats take it.
//
// The elements of a super-block share one power of two: element = fixed * 2^-k, rounded to nearest,
// ties to even, where k is the largest for which no |fixed| of the super-block passes 0x7F7F7F00,
// at most 108, and 8 where all elements are zero. A fixed-point number is four digits to the base
// 256, each from -128 to 127, so that byte products with unsigned codes sum up exactly in integers:
//   fixed = digit[3] * 2^24 + digit[2] * 2^16 + digit[1] * 2^8 + digit[0]
//
// Three digits are as fine as single precision where the elements are of like magnitude. The last
// digit is for super-blocks that an outlier or two rule: it is dropped, that is, set to zero,
// unless the sum of |fixed| / 256, each rounded down, is below 2^27 (the average below 1/16 of the
// range).
#pragma once

#include <cstddef>
#include <cstdint>

namespace qwen35 {

constexpr size_t kInputDigits = 4;
constexpr size_t kGroupBlocks = 4;  // super-blocks of one CodedInput
constexpr int32_t kLargestFixed = 0x7F7F7F00;
constexpr int32_t kOutlierSum = 1 << 27;
constexpr int kMaxFixedShift = 108;  // products with half-precision scales stay normal numbers

// Four super-blocks of input; those past the end of the vector are all zero. Digits, sums and
// scales lie as registers load them.
struct alignas(64) CodedInput {
  int8_t digits[kGroupBlocks][8][kInputDigits][32];  // [super-block][sub-block][digit][element]

  // The sum of the elements of sub-block s of super-block b: exact in fixed point, then rounded to
  // single precision. At [2 (b / 2) + s / 4][4 (b mod 2) + s mod 4]: the order in which the
  // minimums of two super-blocks fill a register.
  float sums[kGroupBlocks][8];

  float scales[kGroupBlocks];  // 2^(8 - k), the weight of digit 1

  bool keepsLast[kGroupBlocks];  // whether the last digits of a super-block were kept
};

// Groups of an input of `cols` elements, a multiple of 256.
constexpr size_t codedGroups(size_t cols) {
  return (cols / 256 + kGroupBlocks - 1) / kGroupBlocks;
}

}  // namespace qwen35
