// The vector operations of AVX2 with FMA and F16C, for the lane-generic kernels. See lanes.h.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"

namespace qwen35 {

namespace {

struct Avx2 {
  using Half = Avx2;
  static constexpr size_t kGroups = 1;
  static constexpr size_t kFloats = kGroups * kLanes;

  // Twelve chains, three inputs and a row element fill the registers; each load serves three or
  // four multiply-adds.
  static constexpr size_t kTileRows = 4;
  static constexpr size_t kTileInputs = 3;

  // A span's: scale codes are then broadcast from memory, which costs the vector units nothing.
  static constexpr size_t kHeadersAtOnce = 16;

  static void prefetch(uintptr_t address) {
    _mm_prefetch(reinterpret_cast<const char*>(address), _MM_HINT_T0);
  }
  static void prefetchToL2(uintptr_t address) {
    _mm_prefetch(reinterpret_cast<const char*>(address), _MM_HINT_T1);
  }

  // ---- floats

  using F = __m256;

  static F zero() { return _mm256_setzero_ps(); }
  static F all(float x) { return _mm256_set1_ps(x); }
  static F load(const float* at) { return _mm256_loadu_ps(at); }
  static F loadRepeated(const float* at) { return load(at); }
  static void store(float* at, F x) { _mm256_storeu_ps(at, x); }
  static F add(F a, F b) { return _mm256_add_ps(a, b); }
  static F sub(F a, F b) { return _mm256_sub_ps(a, b); }
  static F mul(F a, F b) { return _mm256_mul_ps(a, b); }
  static F div(F a, F b) { return _mm256_div_ps(a, b); }
  static F fma(F a, F b, F c) { return _mm256_fmadd_ps(a, b, c); }
  // Both give their second operand where one is a NaN.
  static F atLeast(F low, F x) { return _mm256_max_ps(low, x); }
  static F atMost(F high, F x) { return _mm256_min_ps(high, x); }

  static float fold(F x) {
    const __m128 four = _mm_add_ps(_mm256_castps256_ps128(x), _mm256_extractf128_ps(x, 1));
    const __m128 two = _mm_add_ps(four, _mm_movehl_ps(four, four));
    return _mm_cvtss_f32(_mm_add_ss(two, _mm_movehdup_ps(two)));
  }

  static F loadF32(const uint8_t* at) {
    return _mm256_loadu_ps(reinterpret_cast<const float*>(at));
  }
  static F loadBf16(const uint8_t* at) {
    const __m128i halves = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    return _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_cvtepu16_epi32(halves), 16));
  }
  static F loadSignedBytes(const uint8_t* at) {
    const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
    return _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(bytes));
  }
  static float loadHalf(const uint8_t* at) {
    uint16_t half;
    std::memcpy(&half, at, sizeof half);
    return _cvtsh_ss(half);
  }
  static void loadHalves(const uint8_t* at, float& first, float& second) {
    int both;
    std::memcpy(&both, at, sizeof both);
    const __m128 floats = _mm_cvtph_ps(_mm_cvtsi32_si128(both));
    first = _mm_cvtss_f32(floats);
    second = _mm_cvtss_f32(_mm_movehdup_ps(floats));
  }

  static void storeRounded(int32_t* at, F x) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), _mm256_cvtps_epi32(x));
  }

  // ---- doubles

  struct D {
    __m256d low;
    __m256d high;
  };

  static D toDouble(F x) {
    return {_mm256_cvtps_pd(_mm256_castps256_ps128(x)),
            _mm256_cvtps_pd(_mm256_extractf128_ps(x, 1))};
  }
  static F toFloat(D x) { return _mm256_set_m128(_mm256_cvtpd_ps(x.high), _mm256_cvtpd_ps(x.low)); }
  static D allD(double x) { return {_mm256_set1_pd(x), _mm256_set1_pd(x)}; }
  static D subD(D a, D b) { return {_mm256_sub_pd(a.low, b.low), _mm256_sub_pd(a.high, b.high)}; }
  static D fmaD(D a, D b, D c) {
    return {_mm256_fmadd_pd(a.low, b.low, c.low), _mm256_fmadd_pd(a.high, b.high, c.high)};
  }
  static D addExponent(D p, D t) { return {addShifted(p.low, t.low), addShifted(p.high, t.high)}; }

  static __m256d addShifted(__m256d p, __m256d t) {
    const __m256i shifted = _mm256_slli_epi64(_mm256_castpd_si256(t), 52);
    return _mm256_castsi256_pd(_mm256_add_epi64(_mm256_castpd_si256(p), shifted));
  }

  // ---- codes

  static constexpr size_t kSubBlocks = 1;

  using Bytes = __m256i;

  static Bytes loadBytes(const void* at) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(at));
  }
  static Bytes loadFifths(const void* at) { return loadBytes(at); }
  static Bytes lowNibbles(Bytes x) { return _mm256_and_si256(x, _mm256_set1_epi8(15)); }
  static Bytes highNibbles(Bytes x) { return lowNibbles(_mm256_srli_epi16(x, 4)); }

  template <int kSub>
  static Bytes withFifths(Bytes codes, Bytes bits) {
    const __m256i moved = kSub <= 4 ? _mm256_slli_epi16(bits, kSub <= 4 ? 4 - kSub : 0)
                                    : _mm256_srli_epi16(bits, kSub <= 4 ? 0 : kSub - 4);
    return _mm256_or_si256(codes, _mm256_and_si256(moved, _mm256_set1_epi8(16)));
  }

  // Eight scale codes, then eight minimum codes.
  struct Codes {
    explicit Codes(const SubBlockCodes& codes)
        : bytes(_mm_unpacklo_epi32(_mm_cvtsi64_si128(static_cast<long long>(codes.first)),
                                   _mm_cvtsi64_si128(static_cast<long long>(codes.last)))) {}

    F scales() const { return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes)); }
    F minimums() const {
      return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_srli_si128(bytes, 8)));
    }

    __m128i bytes;
  };

  template <int kBits>
  struct Levels {
    Levels(float scale, float min) : scales(all(scale)), mins(all(min)) {}

    void store(Bytes codes, float* at) const {
      const __m128i low = _mm256_castsi256_si128(codes);
      const __m128i high = _mm256_extracti128_si256(codes, 1);
      const __m128i eights[] = {low, _mm_srli_si128(low, 8), high, _mm_srli_si128(high, 8)};
      for (size_t i = 0; i < 4; ++i) {
        const F code = _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(eights[i]));
        Avx2::store(at + i * kLanes, _mm256_fmsub_ps(code, scales, mins));
      }
    }

    F scales;
    F mins;
  };

  // ---- products of codes and limbs

  // The scale codes of eight sub-blocks, each twice, as pairs of words.
  struct Scales {
    Scales() = default;
    explicit Scales(const Codes& codes) {
      const __m256i places =
          _mm256_setr_epi8(0, -1, 0, -1, 1, -1, 1, -1, 2, -1, 2, -1, 3, -1, 3, -1, 4, -1, 4, -1, 5,
                           -1, 5, -1, 6, -1, 6, -1, 7, -1, 7, -1);
      const __m256i all = _mm256_broadcastq_epi64(codes.bytes);
      _mm256_store_si256(reinterpret_cast<__m256i*>(pairs), _mm256_shuffle_epi8(all, places));
    }

    template <int kSub>
    __m256i of() const {
      return _mm256_set1_epi32(pairs[kSub]);
    }

    alignas(32) int32_t pairs[8];
  };

  using Sums = __m256i;

  static Sums zeroSums() { return _mm256_setzero_si256(); }

  template <int kSub>
  static Sums addProducts(Sums sums, Bytes low, Bytes high, const int8_t* lowLimbs,
                          const int8_t* highLimbs, const Scales& scales) {
    const __m256i first = _mm256_maddubs_epi16(low, loadBytes(lowLimbs));
    const __m256i second = _mm256_maddubs_epi16(high, loadBytes(highLimbs));
    sums = _mm256_add_epi32(sums, _mm256_madd_epi16(first, scales.of<kSub>()));
    return _mm256_add_epi32(sums, _mm256_madd_epi16(second, scales.of<kSub + 1>()));
  }

  static F toFloats(Sums sums) { return _mm256_cvtepi32_ps(sums); }

  // Sixteen registers hold no row in words, and reading them again costs what they save.
  static constexpr bool kTakesWords = false;
};

}  // namespace

}  // namespace qwen35
