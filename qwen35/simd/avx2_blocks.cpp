// Dot products of several rows and several inputs for AVX2. See kernels_avx2.cpp for what this file
// may include.
#include "qwen35/simd/avx2_blocks.h"

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "qwen35/simd/avx2_common.h"
#include "qwen35/simd/kernel_table.h"

namespace qwen35::avx2 {

namespace {

static_assert(kLanes == 8, "one register holds the lanes of a dot product");

// Twelve chains, three inputs and a row element fill the registers; each load serves three or four
// multiply-adds.
constexpr size_t kRowsAtOnce = 4;
constexpr size_t kInputsAtOnce = 3;

constexpr size_t kTilesPerFetch = 4;
constexpr size_t kLineFloats = 16;

// The chains of R rows and P inputs. parts: those of the first row and input; rows of parts are
// partStride floats apart. ahead: address of inputs that come next, of which this asks for a part,
// so that all have arrived after kTilesPerFetch tiles; behind the last inputs it points at nothing.
template <size_t R, size_t P>
void addTile(const float* rows, const float* inputs, float* parts, size_t partStride, size_t len,
             uintptr_t ahead) {
  __m256 chain[R][P];
  for (size_t r = 0; r < R; ++r) {
    for (size_t p = 0; p < P; ++p) {
      chain[r][p] = _mm256_setzero_ps();
    }
  }
  for (size_t i = 0; i < len; i += kLanes) {
    if (i % (kTilesPerFetch * kLineFloats) == 0) {
      for (size_t p = 0; p < P; ++p) {
        const size_t offset = (p * kChunk + i / kTilesPerFetch) * sizeof(float);
        _mm_prefetch(reinterpret_cast<const char*>(ahead + offset), _MM_HINT_T0);
      }
    }
    __m256 input[P];
    for (size_t p = 0; p < P; ++p) {
      input[p] = _mm256_loadu_ps(inputs + p * kChunk + i);
    }
    for (size_t r = 0; r < R; ++r) {
      const __m256 row = _mm256_loadu_ps(rows + r * kChunk + i);
      for (size_t p = 0; p < P; ++p) {
        chain[r][p] = _mm256_fmadd_ps(row, input[p], chain[r][p]);
      }
    }
  }
#pragma GCC unroll 4
  for (size_t r = 0; r < R; ++r) {
#pragma GCC unroll 3
    for (size_t p = 0; p < P; ++p) {
      float* part = parts + r * partStride + p * kLanes;
      _mm256_storeu_ps(part, _mm256_add_ps(_mm256_loadu_ps(part), chain[r][p]));
    }
  }
}

// All rows with P inputs.
template <size_t P>
void addRows(const float* rows, const float* inputs, float* parts, size_t partStride, size_t nRows,
             size_t len) {
  const auto next = reinterpret_cast<uintptr_t>(inputs) + P * kChunk * sizeof(float);
  size_t r = 0;
  for (; nRows - r >= kRowsAtOnce; r += kRowsAtOnce) {
    const size_t tile = r / kRowsAtOnce % kTilesPerFetch;
    addTile<kRowsAtOnce, P>(rows + r * kChunk, inputs, parts + r * partStride, partStride, len,
                            next + tile * (kChunk / kTilesPerFetch) * sizeof(float));
  }
  for (; r < nRows; ++r) {
    addTile<1, P>(rows + r * kChunk, inputs, parts + r * partStride, partStride, len, next);
  }
}

constexpr size_t kSubLen = 32;
constexpr size_t kSubBlocks = kChunk / kSubLen;
constexpr size_t kHeaderBytes = 16;  // super-scale, super-minimum, 12 bytes of scales and minimums

struct SubBlockScales {
  alignas(32) float scale[kSubBlocks];
  alignas(32) float min[kSubBlocks];
};

// Four 6-bit fields to a word, in bytes: the first four scales and minimums are the low bits of
// words 0 and 1; of the last four, word 2 holds the low four bits (scales in its low nibbles,
// minimums in its high ones) and words 0 and 1 hold the two upper bits.
SubBlockScales loadScales(const uint8_t* super) {
  uint32_t word[3];
  std::memcpy(word, super + 4, sizeof word);
  const uint64_t scaleBytes =
      (word[0] & 0x3F3F3F3Fu) |
      static_cast<uint64_t>((word[2] & 0x0F0F0F0Fu) | ((word[0] >> 2) & 0x30303030u)) << 32;
  const uint64_t minBytes =
      (word[1] & 0x3F3F3F3Fu) |
      static_cast<uint64_t>(((word[2] >> 4) & 0x0F0F0F0Fu) | ((word[1] >> 2) & 0x30303030u)) << 32;
  const auto widen = [](uint64_t bytes) {
    const __m128i packed = _mm_cvtsi64_si128(static_cast<long long>(bytes));
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(packed));
  };
  SubBlockScales out;
  _mm256_store_ps(out.scale, _mm256_mul_ps(_mm256_set1_ps(loadHalf(super)), widen(scaleBytes)));
  _mm256_store_ps(out.min, _mm256_mul_ps(_mm256_set1_ps(loadHalf(super + 2)), widen(minBytes)));
  return out;
}

// The 32 weights of a sub-block from its codes.
void storeSubBlock(__m256i codes, float scale, float min, float* dst) {
  const __m256 scales = _mm256_set1_ps(scale);
  const __m256 mins = _mm256_set1_ps(min);
  const __m128i low = _mm256_castsi256_si128(codes);
  const __m128i high = _mm256_extracti128_si256(codes, 1);
  const __m128i eights[] = {low, _mm_srli_si128(low, 8), high, _mm_srli_si128(high, 8)};
  for (size_t i = 0; i < kSubLen / kLanes; ++i) {
    const __m256 code = _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(eights[i]));
    _mm256_storeu_ps(dst + i * kLanes, _mm256_fmsub_ps(code, scales, mins));
  }
}

// Sub-block `sub` in the low nibbles, `sub` + 1 in the high ones; fifths: further bits of each.
void storePair(__m256i nibbles, __m256i lowFifths, __m256i highFifths, const SubBlockScales& s,
               size_t sub, float* dst) {
  const __m256i mask = _mm256_set1_epi8(15);
  const __m256i low = _mm256_or_si256(_mm256_and_si256(nibbles, mask), lowFifths);
  const __m256i high =
      _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(nibbles, 4), mask), highFifths);
  storeSubBlock(low, s.scale[sub], s.min[sub], dst);
  storeSubBlock(high, s.scale[sub + 1], s.min[sub + 1], dst + kSubLen);
}

// 16 in every byte whose lowest bit is set.
__m256i fifthBits(__m256i bits) {
  return _mm256_and_si256(_mm256_slli_epi16(bits, 4), _mm256_set1_epi8(16));
}

}  // namespace

void decodeQ80(const void* src, float* dst, size_t n) {
  constexpr size_t kBlockBytes = 34;
  const auto* block = static_cast<const uint8_t*>(src);
  for (size_t at = 0; at < n; at += kSubLen, block += kBlockBytes) {
    const __m256 scale = _mm256_set1_ps(loadHalf(block));
    for (size_t i = 0; i < kSubLen; i += kLanes) {
      const __m128i eight = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(block + 2 + i));
      const __m256 codes = _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(eight));
      _mm256_storeu_ps(dst + at + i, _mm256_mul_ps(codes, scale));
    }
  }
}

void decodeQ4K(const void* src, float* dst, size_t n) {
  constexpr size_t kBlockBytes = 144;
  const __m256i none = _mm256_setzero_si256();
  const auto* super = static_cast<const uint8_t*>(src);
  for (size_t at = 0; at < n; at += kChunk, super += kBlockBytes) {
    const SubBlockScales s = loadScales(super);
    for (size_t sub = 0; sub < kSubBlocks; sub += 2) {
      const __m256i nibbles = load32Bytes(super + kHeaderBytes + sub / 2 * kSubLen);
      storePair(nibbles, none, none, s, sub, dst + at + sub * kSubLen);
    }
  }
}

void decodeQ5K(const void* src, float* dst, size_t n) {
  constexpr size_t kBlockBytes = 176;
  const auto* super = static_cast<const uint8_t*>(src);
  for (size_t at = 0; at < n; at += kChunk, super += kBlockBytes) {
    const SubBlockScales s = loadScales(super);
    __m256i bits = load32Bytes(super + kHeaderBytes);  // bit j of each byte: sub-block j
    for (size_t sub = 0; sub < kSubBlocks; sub += 2) {
      const __m256i nibbles = load32Bytes(super + kHeaderBytes + kSubLen + sub / 2 * kSubLen);
      const __m256i next = _mm256_srli_epi16(bits, 1);
      storePair(nibbles, fifthBits(bits), fifthBits(next), s, sub, dst + at + sub * kSubLen);
      bits = _mm256_srli_epi16(bits, 2);
    }
  }
}

void addChunkProducts(const float* rows, const float* inputs, float* parts, size_t nRows,
                      size_t nInputs, size_t len) {
  const size_t partStride = nInputs * kLanes;
  size_t p = 0;
  for (; nInputs - p >= kInputsAtOnce; p += kInputsAtOnce) {
    addRows<kInputsAtOnce>(rows, inputs + p * kChunk, parts + p * kLanes, partStride, nRows, len);
  }
  if (nInputs - p == 2) {
    addRows<2>(rows, inputs + p * kChunk, parts + p * kLanes, partStride, nRows, len);
  } else if (nInputs - p == 1) {
    addRows<1>(rows, inputs + p * kChunk, parts + p * kLanes, partStride, nRows, len);
  }
}

void foldSums(const float* sums, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = fold(_mm256_loadu_ps(sums + i * kLanes));
  }
}

}  // namespace qwen35::avx2
