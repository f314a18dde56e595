// A second, slow implementation of the block formats for the tests. It is built the other way round
// from the library: one element at a time, from a table of where each code's bits lie, in double
// precision wherever the result is then rounded once to single.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "quant/quant_type.h"

namespace reference {

using Bytes = std::vector<uint8_t>;

// Nearest half-precision pattern of a number that is not NaN, ties to even, found by division.
uint16_t halfFromNumber(double value);

// The value of a half-precision pattern; NaN for NaN patterns.
double numberFromHalf(uint16_t h);

// Q4_0, Q8_0, Q4_K, Q5_K or Q6_K.
std::vector<float> decode(kel::QuantType type, const Bytes& blocks, size_t n);
Bytes encode(kel::QuantType type, const std::vector<float>& row);

// Code of element i and what it is worth: (code * scale) * d + offset. Codes are centred (Q4_0:
// -8..7, Q6_K: -32..31) and lie in lowest..highest; formats without sub-block scales have scale 1.
struct Grid {
  int code;
  int lowest;
  int highest;
  int scale;
  double d;
  double offset;
};
Grid gridOf(kel::QuantType type, const Bytes& blocks, size_t i);

}  // namespace reference
