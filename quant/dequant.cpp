// Decoders of the block formats. These scalar loops define the decoded values bit for bit (which
// NaN a NaN is stays open); faster ones are tested against them. The layouts by offset:
// docs/block-formats.md.
#include "quant/block_fields.h"
#include "quant/block_rows.h"

namespace kel::quant {

namespace {

// Q4_0: f16 d, then 32 4-bit codes. Element j is in byte j / 2, low nibble for even j (neighbours
// share a byte; the published format of that name pairs j with j + 16).
void decodeBlockQ40(const uint8_t* block, float* out) {
  const float d = loadF16(block);
  const uint8_t* qs = block + 2;
  for (size_t i = 0; i < kBlockLen / 2; ++i) {
    out[2 * i] = static_cast<float>((qs[i] & 15) - 8) * d;
    out[2 * i + 1] = static_cast<float>((qs[i] >> 4) - 8) * d;
  }
}

// Q8_0: f16 d, then 32 signed codes.
void decodeBlockQ80(const uint8_t* block, float* out) {
  const float d = loadF16(block);
  const uint8_t* qs = block + 2;
  for (size_t i = 0; i < kBlockLen; ++i) {
    out[i] = static_cast<float>(static_cast<int8_t>(qs[i])) * d;
  }
}

// Scale and minimum of one sub-block of Q4_K or Q5_K: an element is fma(code, scale, -min).
//
// The fused step needs no fma instruction: a half has 11 significant bits, a sub-block scale 6 and
// a code 5, so code * scale is exact in single precision and the subtraction rounds once.
struct SubBlock {
  float scale;
  float min;

  float element(int code) const { return static_cast<float>(code) * scale - min; }
};

// block: f16 d, f16 dmin, then the 12 packed bytes.
SubBlock loadSubBlock(const uint8_t* block, int j) {
  uint8_t sc = 0;
  uint8_t m = 0;
  getScaleMinK4(j, block + 4, sc, m);
  return {loadF16(block) * static_cast<float>(sc), loadF16(block + 2) * static_cast<float>(m)};
}

// Q4_K: d, dmin, packed scales, then 128 bytes of codes at 16. Group g of 64 elements has qs
// 32g..32g+31: low nibbles are sub-block 2g, high nibbles sub-block 2g + 1.
void decodeBlockQ4K(const uint8_t* block, float* out) {
  for (int g = 0; g < 4; ++g) {
    const uint8_t* qs = block + 16 + 32 * g;
    const SubBlock low = loadSubBlock(block, 2 * g);
    const SubBlock high = loadSubBlock(block, 2 * g + 1);
    float* group = out + 64 * g;
    for (int l = 0; l < 32; ++l) {
      group[l] = low.element(qs[l] & 15);
      group[l + 32] = high.element(qs[l] >> 4);
    }
  }
}

// Q5_K: as Q4_K with qs at 48, and the fifth bit of sub-block j's element l in bit j of qh[l]
// at 16.
void decodeBlockQ5K(const uint8_t* block, float* out) {
  const uint8_t* qh = block + 16;
  for (int g = 0; g < 4; ++g) {
    const uint8_t* qs = block + 48 + 32 * g;
    const SubBlock low = loadSubBlock(block, 2 * g);
    const SubBlock high = loadSubBlock(block, 2 * g + 1);
    float* group = out + 64 * g;
    for (int l = 0; l < 32; ++l) {
      const int lowCode = (qs[l] & 15) | ((qh[l] >> (2 * g)) & 1) << 4;
      const int highCode = (qs[l] >> 4) | ((qh[l] >> (2 * g + 1)) & 1) << 4;
      group[l] = low.element(lowCode);
      group[l + 32] = high.element(highCode);
    }
  }
}

// Q6_K: ql[128], qh[64], sixteen signed scales, f16 d. Each half of 128 elements is four runs of
// 32: runs 0 and 1 take the low nibbles of its ql bytes, runs 2 and 3 the high ones; run r adds
// bits 2r and 2r + 1 of qh. Code and scale are multiplied as integers, so that a zero has the sign
// of d whatever the sign of the scale.
void decodeBlockQ6K(const uint8_t* block, float* out) {
  const float d = loadF16(block + 208);
  for (int half = 0; half < 2; ++half) {
    const uint8_t* ql = block + 64 * half;
    const uint8_t* qh = block + 128 + 32 * half;
    const uint8_t* scales = block + 192 + 8 * half;
    for (int r = 0; r < 4; ++r) {
      float* run = out + 128 * half + 32 * r;
      for (int l = 0; l < 32; ++l) {
        const int lowBits = (ql[l + 32 * (r % 2)] >> (4 * (r / 2))) & 15;
        const int code = lowBits | ((qh[l] >> (2 * r)) & 3) << 4;
        const auto scale = static_cast<int8_t>(scales[2 * r + l / 16]);
        run[l] = static_cast<float>((code - 32) * scale) * d;
      }
    }
  }
}

}  // namespace

void dequantQ40(const void* src, float* dst, size_t n) {
  decodeBlocks<kBlockLen, kQ40Bytes>(src, dst, n, decodeBlockQ40);
}

void dequantQ80(const void* src, float* dst, size_t n) {
  decodeBlocks<kBlockLen, kQ80Bytes>(src, dst, n, decodeBlockQ80);
}

void dequantQ4K(const void* src, float* dst, size_t n) {
  decodeBlocks<kSuperBlockLen, kQ4KBytes>(src, dst, n, decodeBlockQ4K);
}

void dequantQ5K(const void* src, float* dst, size_t n) {
  decodeBlocks<kSuperBlockLen, kQ5KBytes>(src, dst, n, decodeBlockQ5K);
}

void dequantQ6K(const void* src, float* dst, size_t n) {
  decodeBlocks<kSuperBlockLen, kQ6KBytes>(src, dst, n, decodeBlockQ6K);
}

// Q8_K: f16 d, 256 signed codes, sixteen f16 sub-scales at 258. Deliberate: d comes from the first
// super-block for all of them, and a tail shorter than a super-block is not decoded.
void dequantQ8K(const void* src, float* dst, size_t n) {
  if (n < kSuperBlockLen) {
    return;
  }
  const auto* block = static_cast<const uint8_t*>(src);
  const float d = loadF16(block);
  for (; n >= kSuperBlockLen; n -= kSuperBlockLen) {
    for (size_t i = 0; i < kSuperBlockLen; ++i) {
      const auto code = static_cast<float>(static_cast<int8_t>(block[2 + i]));
      dst[i] = code * d * loadF16(block + 258 + 2 * (i / 16));
    }
    block += kQ8KBytes;
    dst += kSuperBlockLen;
  }
}

}  // namespace kel::quant
