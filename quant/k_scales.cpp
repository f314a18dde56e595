// The 12 bytes that hold eight 6-bit scales and eight 6-bit minimums in Q4_K and Q5_K.
//
//   byte 0..3    bits 0-5 scale of sub-block 0..3, bits 6-7 top of the scale of sub-block 4..7
//   byte 4..7    bits 0-5 minimum of sub-block 0..3, bits 6-7 top of the minimum of sub-block 4..7
//   byte 8..11   bits 0-3 low part of the scale, bits 4-7 of the minimum, of sub-block 4..7
#include "quant/block_fields.h"
#include "quant/k_layout.h"

namespace kel::quant {

namespace {

// The largest of 0 and the eight values. NaN never wins a comparison and is passed over.
float largest(const float* values) {
  float result = 0;
  for (size_t j = 0; j < kSubBlocks; ++j) {
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
  d = maxScale / kMaxScaleCode;
  dmin = maxMin / kMaxScaleCode;
  const float scaleFactor = maxScale > 0 ? kMaxScaleCode / maxScale : 0;
  const float minFactor = maxMin > 0 ? kMaxScaleCode / maxMin : 0;

  int scales[kSubBlocks];
  int mins[kSubBlocks];
  for (size_t j = 0; j < kSubBlocks; ++j) {
    scales[j] = roundClamped(scaleFactor * subScales[j], 0, kMaxScaleCode);
    mins[j] = roundClamped(minFactor * subMins[j], 0, kMaxScaleCode);
  }
  packScaleCodes(scales, mins, scales12);
}

}  // namespace kel::quant
