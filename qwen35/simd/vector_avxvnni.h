// AVX2 with the byte products of AVX-VNNI, for the lane-generic kernels. See lanes.h.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "qwen35/simd/vector_avx2.h"

namespace qwen35 {

namespace {

struct AvxVnni : Avx2 {
  using Half = AvxVnni;

  // The scale codes of eight sub-blocks.
  struct Scales {
    Scales() = default;
    explicit Scales(const Codes& all) {
      _mm256_store_si256(reinterpret_cast<__m256i*>(codes), _mm256_cvtepu8_epi32(all.bytes));
    }

    template <int kSub>
    __m256i of() const {
      return _mm256_set1_epi32(codes[kSub]);
    }

    alignas(32) int32_t codes[8];
  };

  // The same instructions in two encodings: processors with AVX-512 have the second.
#ifdef __AVXVNNI__
  static __m256i addBytes(__m256i sums, __m256i codes, __m256i limbs) {
    return _mm256_dpbusd_avx_epi32(sums, codes, limbs);
  }
  static __m256i addWords(__m256i sums, __m256i a, __m256i b) {
    return _mm256_dpwssd_avx_epi32(sums, a, b);
  }
#else
  static __m256i addBytes(__m256i sums, __m256i codes, __m256i limbs) {
    return _mm256_dpbusd_epi32(sums, codes, limbs);
  }
  static __m256i addWords(__m256i sums, __m256i a, __m256i b) {
    return _mm256_dpwssd_epi32(sums, a, b);
  }
#endif

  // Four products of a code below 32 and a limb fit 16 bits, so that the pair of words that they
  // fill is times the pair of the scale and what lies above it, 0.
  template <int kSub>
  static Sums addProducts(Sums sums, Bytes low, Bytes high, const int8_t* lowLimbs,
                          const int8_t* highLimbs, const Scales& scales) {
    const __m256i first = addBytes(_mm256_setzero_si256(), low, loadBytes(lowLimbs));
    const __m256i second = addBytes(_mm256_setzero_si256(), high, loadBytes(highLimbs));
    return addWords(addWords(sums, first, scales.of<kSub>()), second, scales.of<kSub + 1>());
  }
};

}  // namespace

}  // namespace qwen35
