// Encoders of the super-block formats Q4_K, Q5_K and Q6_K. Layouts: dequant.cpp.
#include <algorithm>
#include <cmath>

#include "quant/block_fields.h"
#include "quant/block_rows.h"
#include "quant/k_layout.h"

namespace kel::quant {

namespace {

constexpr size_t kSubBlockLenQ6K = 16;
constexpr size_t kSubBlocksQ6K = kSuperBlockLen / kSubBlockLenQ6K;

// codes[i] = round((x[i] + offset) / scale) in 0..levels, for one sub-block.
void encodeSubBlock(const float* x, float offset, float scale, int levels, uint8_t* codes) {
  for (size_t l = 0; l < kSubBlockLen; ++l) {
    codes[l] = static_cast<uint8_t>(roundClamped((x[l] + offset) / scale, 0, levels));
  }
}

// What Q4_K and Q5_K share: writes d, dmin and the packed scales (16 bytes) to block, and the codes
// 0..levels of the 256 elements to codes.
void encodeScaleMin(const float* x, int levels, uint8_t* block, uint8_t* codes) {
  // First pass: each sub-block spans its own range.
  float scales[kSubBlocks];
  float mins[kSubBlocks];
  for (size_t j = 0; j < kSubBlocks; ++j) {
    const float* sub = x + kSubBlockLen * j;
    float least = sub[0];
    float most = sub[0];
    for (size_t l = 1; l < kSubBlockLen; ++l) {
      if (sub[l] < least) {
        least = sub[l];
      }
      if (sub[l] > most) {
        most = sub[l];
      }
    }
    scales[j] = (most - least) / static_cast<float>(levels);
    mins[j] = -least;
    uint8_t* subCodes = codes + kSubBlockLen * j;
    if (scales[j] > 0) {
      encodeSubBlock(sub, mins[j], scales[j], levels, subCodes);
    } else {
      std::fill_n(subCodes, kSubBlockLen, uint8_t{0});
    }
  }

  float d = 0;
  float dmin = 0;
  uint8_t* packed = block + kScalesAt;
  packScalesK(packed, scales, mins, d, dmin);
  const float storedD = storeF16(block, d);
  const float storedDmin = storeF16(block + 2, dmin);

  // Second pass: codes against the scales that a reader will see. A sub-block whose stored scale is
  // zero keeps its first codes, which decode to the minimum whatever they are.
  for (int j = 0; j < static_cast<int>(kSubBlocks); ++j) {
    uint8_t sc = 0;
    uint8_t m = 0;
    getScaleMinK4(j, packed, sc, m);
    const float scale = static_cast<float>(sc) * storedD;
    if (scale == 0) {
      continue;
    }
    const float min = static_cast<float>(m) * storedDmin;
    encodeSubBlock(x + kSubBlockLen * j, min, scale, levels, codes + kSubBlockLen * j);
  }
}

void encodeBlockQ4K(const float* x, uint8_t* block) {
  uint8_t codes[kSuperBlockLen];
  encodeScaleMin(x, 15, block, codes);
  packCodesQ4K(codes, block);
}

void encodeBlockQ5K(const float* x, uint8_t* block) {
  uint8_t codes[kSuperBlockLen];
  encodeScaleMin(x, 31, block, codes);
  packCodesQ5K(codes, block);
}

// Sub-block scales 0..127 against one half-precision d. Returns d as a reader will see it.
float encodeScalesQ6K(const float* x, uint8_t* block) {
  float subScales[kSubBlocksQ6K];
  float maxScale = 0;
  for (size_t i = 0; i < kSubBlocksQ6K; ++i) {
    float amax = 0;
    for (size_t l = 0; l < kSubBlockLenQ6K; ++l) {
      const float a = std::fabs(x[kSubBlockLenQ6K * i + l]);
      if (a > amax) {
        amax = a;
      }
    }
    subScales[i] = amax / 31;
    if (subScales[i] > maxScale) {
      maxScale = subScales[i];
    }
  }
  const float d = storeF16(block + 208, maxScale / 127);
  for (size_t i = 0; i < kSubBlocksQ6K; ++i) {
    const int scale = d > 0 ? roundClamped(subScales[i] / d, 0, 127) : 0;
    block[192 + i] = static_cast<uint8_t>(scale);
  }
  return d;
}

void encodeBlockQ6K(const float* x, uint8_t* block) {
  const float d = encodeScalesQ6K(x, block);
  uint8_t codes[kSuperBlockLen];
  for (size_t i = 0; i < kSubBlocksQ6K; ++i) {
    const float scale = d * static_cast<float>(block[192 + i]);
    const float* sub = x + kSubBlockLenQ6K * i;
    uint8_t* subCodes = codes + kSubBlockLenQ6K * i;
    for (size_t l = 0; l < kSubBlockLenQ6K; ++l) {
      // 32 stands for 0, so that a sub-block without a scale has one fixed encoding.
      const int centred = scale != 0 ? roundClamped(sub[l] / scale, -32, 31) : 0;
      subCodes[l] = static_cast<uint8_t>(centred + 32);
    }
  }

  for (size_t half = 0; half < 2; ++half) {
    const uint8_t* c = codes + 128 * half;
    uint8_t* ql = block + 64 * half;
    uint8_t* qh = block + 128 + 32 * half;
    for (size_t l = 0; l < 32; ++l) {
      ql[l] = static_cast<uint8_t>((c[l] & 15) | (c[l + 64] & 15) << 4);
      ql[l + 32] = static_cast<uint8_t>((c[l + 32] & 15) | (c[l + 96] & 15) << 4);
      qh[l] = static_cast<uint8_t>(c[l] >> 4 | c[l + 32] >> 4 << 2 | c[l + 64] >> 4 << 4 |
                                   c[l + 96] >> 4 << 6);
    }
  }
}

}  // namespace

void quantQ4K(const float* src, void* dst, size_t n) {
  encodeBlocks<kSuperBlockLen, kQ4KBytes>(src, dst, n, encodeBlockQ4K);
}

void quantQ5K(const float* src, void* dst, size_t n) {
  encodeBlocks<kSuperBlockLen, kQ5KBytes>(src, dst, n, encodeBlockQ5K);
}

void quantQ6K(const float* src, void* dst, size_t n) {
  encodeBlocks<kSuperBlockLen, kQ6KBytes>(src, dst, n, encodeBlockQ6K);
}

}  // namespace kel::quant
