// The 12 bytes that hold eight 6-bit scales and eight 6-bit minimums in Q4_K and Q5_K.
//
//   byte 0..3    bits 0-5 scale of sub-block 0..3, bits 6-7 top of the scale of sub-block 4..7
//   byte 4..7    bits 0-5 minimum of sub-block 0..3, bits 6-7 top of the minimum of sub-block 4..7
//   byte 8..11   bits 0-3 low part of the scale, bits 4-7 of the minimum, of sub-block 4..7
#include <algorithm>

#include "quant/block_fields.h"

namespace kel::quant {

namespace {

constexpr int kSubBlocks = 8;
constexpr int kMaxCode = 63;

// The largest of 0 and the eight values. NaN never wins a comparison and is passed over.
float largest(const float* values) {
  float result = 0;
  for (int j = 0; j < kSubBlocks; ++j) {
    if (values[j] > result) {
      result = values[j];
    }
  }
  return result;
}

}  // namespace

void getScaleMinK4(int j, const uint8_t* scales, uint8_t& sc, uint8_t& m) {
  if (j < 4) {
    sc = scales[j] & 63;
    m = scales[j + 4] & 63;
  } else {
    sc = static_cast<uint8_t>((scales[j + 4] & 15) | (scales[j - 4] >> 6) << 4);
    m = static_cast<uint8_t>((scales[j + 4] >> 4) | (scales[j] >> 6) << 4);
  }
}

void packScalesK(uint8_t* scales12, const float* subScales, const float* subMins, float& d,
                 float& dmin) {
  const float maxScale = largest(subScales);
  const float maxMin = largest(subMins);
  d = maxScale / kMaxCode;
  dmin = maxMin / kMaxCode;
  const float scaleFactor = maxScale > 0 ? kMaxCode / maxScale : 0;
  const float minFactor = maxMin > 0 ? kMaxCode / maxMin : 0;

  std::fill_n(scales12, 12, uint8_t{0});
  for (int j = 0; j < kSubBlocks; ++j) {
    const int scale = roundClamped(scaleFactor * subScales[j], 0, kMaxCode);
    const int min = roundClamped(minFactor * subMins[j], 0, kMaxCode);
    if (j < 4) {
      scales12[j] = static_cast<uint8_t>(scale);
      scales12[j + 4] = static_cast<uint8_t>(min);
    } else {
      scales12[j + 4] = static_cast<uint8_t>((scale & 15) | (min & 15) << 4);
      scales12[j - 4] |= static_cast<uint8_t>(scale >> 4 << 6);
      scales12[j] |= static_cast<uint8_t>(min >> 4 << 6);
    }
  }
}

}  // namespace kel::quant
