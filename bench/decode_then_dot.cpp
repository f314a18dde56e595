#include "bench/decode_then_dot.h"

#include <cstring>

#include "quant/blocks.h"

namespace {

float half(const uint8_t* at) {
  uint16_t bits;
  std::memcpy(&bits, at, sizeof bits);
  return kel::quant::f16ToF32(bits);
}

void decodeSub(const uint8_t* codes, unsigned shift, float scale, float min, float* out) {
  for (size_t l = 0; l < 32; ++l) {
    out[l] = __builtin_fmaf(static_cast<float>((codes[l] >> shift) & 15), scale, -min);
  }
}

void decodeBlock(const uint8_t* block, float* out) {
  const float d = half(block);
  const float dmin = half(block + 2);
  for (int sub = 0; sub < 8; ++sub) {
    uint8_t scale = 0;
    uint8_t min = 0;
    kel::quant::getScaleMinK4(sub, block + 4, scale, min);
    decodeSub(block + 16 + sub / 2 * 32, sub % 2 * 4, d * scale, dmin * min, out + sub * 32);
  }
}

float dotOf(const float* a, const float* b, size_t n) {
  constexpr size_t kSums = 32;
  float sums[kSums] = {};
  for (size_t i = 0; i < n; i += kSums) {
    for (size_t lane = 0; lane < kSums; ++lane) {
      sums[lane] = __builtin_fmaf(a[i + lane], b[i + lane], sums[lane]);
    }
  }
  float sum = 0.0f;
  for (const float lane : sums) {
    sum += lane;
  }
  return sum;
}

}  // namespace

void decodeThenDotQ4K(const uint8_t* weights, const float* x, float* out, float* scratch,
                      size_t rows, size_t cols) {
  for (size_t r = 0; r < rows; ++r) {
    for (size_t i = 0; i < cols;
         i += kel::quant::kSuperBlockLen, weights += kel::quant::kQ4KBytes) {
      decodeBlock(weights, scratch + i);
    }
    out[r] = dotOf(scratch, x, cols);
  }
}
