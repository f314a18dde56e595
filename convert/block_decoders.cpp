#include "convert/block_decoders.h"

#include <bit>
#include <cstdint>
#include <cstring>

#include "quant/blocks.h"

namespace kel::convert {

namespace {

constexpr size_t kHalfBlock = 16;

// Values of the non-linear 4-bit codes.
constexpr float kNonLinear[16] = {-127, -104, -83, -65, -49, -35, -22, -10,
                                  1,    13,   25,  38,  53,  69,  89,  113};

// Values of the 4-bit floats: sign, two bits of exponent, one of mantissa.
constexpr float kE2M1[16] = {0.0F,  0.5F,  1.0F,  1.5F,  2.0F,  3.0F,  4.0F,  6.0F,
                             -0.0F, -0.5F, -1.0F, -1.5F, -2.0F, -3.0F, -4.0F, -6.0F};

// 2^(exponent - 127); 255 is NaN. The lowest one is a denormal of binary32.
float powerOfTwo(uint8_t exponent) {
  constexpr uint32_t kLowest = 0x00400000;
  constexpr uint32_t kQuietNan = 0x7FC00000;
  const uint32_t normal = static_cast<uint32_t>(exponent) << 23U;
  return std::bit_cast<float>(exponent == 0 ? kLowest : exponent == 255 ? kQuietNan : normal);
}

uint16_t loadU16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | p[1] << 8);
}

float loadF16(const uint8_t* p) {
  return quant::f16ToF32(loadU16(p));
}

template <size_t blockLen, size_t blockBytes, typename DecodeBlock>
void decodeBlocks(const void* src, float* dst, size_t n, DecodeBlock decodeBlock) {
  const auto* block = static_cast<const uint8_t*>(src);
  for (size_t at = 0; at + blockLen <= n; at += blockLen) {
    decodeBlock(block, dst + at);
    block += blockBytes;
  }
}

// Calls put(element, code) for the 32 nibbles of 16 bytes.
template <typename Put>
void forNibbles(const uint8_t* codes, Put put) {
  for (size_t j = 0; j < kHalfBlock; ++j) {
    put(j, codes[j] & 15U);
    put(j + kHalfBlock, codes[j] >> 4U);
  }
}

// The same with the fifth bit of element j taken from bit j of the four bytes at high.
template <typename Put>
void forFiveBits(const uint8_t* high, const uint8_t* codes, Put put) {
  uint32_t bits = 0;
  std::memcpy(&bits, high, sizeof(bits));
  forNibbles(codes, [&](size_t j, uint32_t nibble) { put(j, nibble | ((bits >> j) & 1U) << 4U); });
}

// Signed 6-bit scale j of a Q3_K block: low nibbles in bytes 0 to 7, high bit pairs in 8 to 11.
int scaleOfQ3K(const uint8_t* scales, size_t j) {
  const uint32_t low = j < 8 ? scales[j] & 15U : scales[j - 8] >> 4U;
  const uint32_t high = (scales[8 + j % 4] >> (2 * (j / 4))) & 3U;
  return static_cast<int>(low | high << 4U) - 32;
}

// Signed 6-bit scale of sub-block b of an IQ4_XS block: low nibbles at byte 4, high pairs at 2.
int scaleOfIQ4XS(const uint8_t* block, size_t b) {
  const uint32_t low = (block[4 + b / 2] >> (4 * (b & 1U))) & 15U;
  const uint32_t high = (static_cast<uint32_t>(loadU16(block + 2)) >> (2 * b)) & 3U;
  return static_cast<int>(low | high << 4U) - 32;
}

}  // namespace

void decodeQ40(const void* src, float* dst, size_t n) {
  decodeBlocks<32, 18>(src, dst, n, [](const uint8_t* block, float* out) {
    const float d = loadF16(block);
    forNibbles(block + 2, [&](size_t j, uint32_t code) {
      out[j] = static_cast<float>(static_cast<int>(code) - 8) * d;
    });
  });
}

void decodeQ41(const void* src, float* dst, size_t n) {
  decodeBlocks<32, 20>(src, dst, n, [](const uint8_t* block, float* out) {
    const float d = loadF16(block);
    const float m = loadF16(block + 2);
    forNibbles(block + 4,
               [&](size_t j, uint32_t code) { out[j] = static_cast<float>(code) * d + m; });
  });
}

void decodeQ50(const void* src, float* dst, size_t n) {
  decodeBlocks<32, 22>(src, dst, n, [](const uint8_t* block, float* out) {
    const float d = loadF16(block);
    forFiveBits(block + 2, block + 6, [&](size_t j, uint32_t code) {
      out[j] = static_cast<float>(static_cast<int>(code) - 16) * d;
    });
  });
}

void decodeQ51(const void* src, float* dst, size_t n) {
  decodeBlocks<32, 24>(src, dst, n, [](const uint8_t* block, float* out) {
    const float d = loadF16(block);
    const float m = loadF16(block + 2);
    forFiveBits(block + 4, block + 8,
                [&](size_t j, uint32_t code) { out[j] = static_cast<float>(code) * d + m; });
  });
}

// Bytes: 16 of scales (low nibble scale, high nibble minimum), 64 of codes, d, dmin. Each half of
// 128 elements has 32 code bytes, whose bit pairs hold four runs of 32.
void decodeQ2K(const void* src, float* dst, size_t n) {
  decodeBlocks<256, 84>(src, dst, n, [](const uint8_t* block, float* out) {
    const float d = loadF16(block + 80);
    const float dmin = loadF16(block + 82);
    for (size_t run = 0; run < 8; ++run) {
      const uint8_t* codes = block + 16 + 32 * (run / 4);
      for (size_t l = 0; l < 32; ++l) {
        const uint32_t packed = block[2 * run + l / 16];
        const uint32_t code = (codes[l] >> (2 * (run % 4))) & 3U;
        out[32 * run + l] = d * static_cast<float>(packed & 15U) * static_cast<float>(code) -
                            dmin * static_cast<float>(packed >> 4U);
      }
    }
  });
}

// Bytes: 32 of third bits, 64 of low bit pairs (walked as in Q2_K), 12 of scales, d. Bit k of byte
// l belongs to element l of run k; where it is clear, 4 is subtracted.
void decodeQ3K(const void* src, float* dst, size_t n) {
  decodeBlocks<256, 110>(src, dst, n, [](const uint8_t* block, float* out) {
    const float d = loadF16(block + 108);
    for (size_t run = 0; run < 8; ++run) {
      const uint8_t* codes = block + 32 + 32 * (run / 4);
      for (size_t l = 0; l < 32; ++l) {
        const int low = (codes[l] >> (2 * (run % 4))) & 3;
        const int code = low - (((block[l] >> run) & 1) != 0 ? 0 : 4);
        const int scale = scaleOfQ3K(block + 96, 2 * run + l / 16);
        out[32 * run + l] = d * static_cast<float>(scale) * static_cast<float>(code);
      }
    }
  });
}

void decodeIQ4NL(const void* src, float* dst, size_t n) {
  decodeBlocks<32, 18>(src, dst, n, [](const uint8_t* block, float* out) {
    const float d = loadF16(block);
    forNibbles(block + 2, [&](size_t j, uint32_t code) { out[j] = d * kNonLinear[code]; });
  });
}

void decodeIQ4XS(const void* src, float* dst, size_t n) {
  decodeBlocks<256, 136>(src, dst, n, [](const uint8_t* block, float* out) {
    const float d = loadF16(block);
    for (size_t b = 0; b < 8; ++b) {
      const float scale = d * static_cast<float>(scaleOfIQ4XS(block, b));
      forNibbles(block + 8 + 16 * b,
                 [&](size_t j, uint32_t code) { out[32 * b + j] = scale * kNonLinear[code]; });
    }
  });
}

void decodeMXFP4(const void* src, float* dst, size_t n) {
  decodeBlocks<32, 17>(src, dst, n, [](const uint8_t* block, float* out) {
    const float scale = powerOfTwo(block[0]);
    forNibbles(block + 1, [&](size_t j, uint32_t code) { out[j] = kE2M1[code] * scale; });
  });
}

}  // namespace kel::convert
