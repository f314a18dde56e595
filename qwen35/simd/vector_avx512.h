// The vector operations of AVX-512 (F, BW, VL, DQ, VNNI), for the lane-generic kernels. See
// lanes.h.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/vector_avx2.h"

namespace qwen35 {

namespace {

struct Avx512 {
  using Half = Avx2;
  static constexpr size_t kGroups = 2;
  static constexpr size_t kFloats = kGroups * kLanes;

  // Twenty-four chains, three vectors of inputs and a row element in 32 registers.
  static constexpr size_t kTileRows = 8;
  static constexpr size_t kTileInputs = 3;

  static constexpr size_t kHeadersAtOnce = 1;  // scale codes stay in registers

  static void prefetch(uintptr_t address) { Avx2::prefetch(address); }
  static void prefetchToL2(uintptr_t address) { Avx2::prefetchToL2(address); }

  // ---- floats

  using F = __m512;

  static F zero() { return _mm512_setzero_ps(); }
  static F all(float x) { return _mm512_set1_ps(x); }
  static F load(const float* at) { return _mm512_loadu_ps(at); }
  static F loadRepeated(const float* at) { return _mm512_broadcast_f32x8(_mm256_loadu_ps(at)); }
  static void store(float* at, F x) { _mm512_storeu_ps(at, x); }
  static F add(F a, F b) { return _mm512_add_ps(a, b); }
  static F sub(F a, F b) { return _mm512_sub_ps(a, b); }
  static F mul(F a, F b) { return _mm512_mul_ps(a, b); }
  static F div(F a, F b) { return _mm512_div_ps(a, b); }
  static F fma(F a, F b, F c) { return _mm512_fmadd_ps(a, b, c); }
  // Both give their second operand where one is a NaN.
  static F atLeast(F low, F x) { return _mm512_max_ps(low, x); }
  static F atMost(F high, F x) { return _mm512_min_ps(high, x); }

  static void storeRounded(int32_t* at, F x) { _mm512_storeu_si512(at, _mm512_cvtps_epi32(x)); }

  // ---- doubles

  struct D {
    __m512d low;
    __m512d high;
  };

  static D toDouble(F x) {
    return {_mm512_cvtps_pd(_mm512_castps512_ps256(x)),
            _mm512_cvtps_pd(_mm512_extractf32x8_ps(x, 1))};
  }
  static F toFloat(D x) {
    return _mm512_insertf32x8(_mm512_castps256_ps512(_mm512_cvtpd_ps(x.low)),
                              _mm512_cvtpd_ps(x.high), 1);
  }
  static D allD(double x) { return {_mm512_set1_pd(x), _mm512_set1_pd(x)}; }
  static D subD(D a, D b) { return {_mm512_sub_pd(a.low, b.low), _mm512_sub_pd(a.high, b.high)}; }
  static D fmaD(D a, D b, D c) {
    return {_mm512_fmadd_pd(a.low, b.low, c.low), _mm512_fmadd_pd(a.high, b.high, c.high)};
  }
  static D addExponent(D p, D t) { return {addShifted(p.low, t.low), addShifted(p.high, t.high)}; }

  static __m512d addShifted(__m512d p, __m512d t) {
    const __m512i shifted = _mm512_slli_epi64(_mm512_castpd_si512(t), 52);
    return _mm512_castsi512_pd(_mm512_add_epi64(_mm512_castpd_si512(p), shifted));
  }

  // ---- codes

  // Two numbers, each in half of the elements of 32 bits.
  template <int kFirst, int kSecond>
  static __m512i halves() {
    return _mm512_setr_epi32(kFirst, kFirst, kFirst, kFirst, kFirst, kFirst, kFirst, kFirst,
                             kSecond, kSecond, kSecond, kSecond, kSecond, kSecond, kSecond,
                             kSecond);
  }

  static constexpr size_t kSubBlocks = 2;

  using Bytes = __m512i;

  static Bytes loadBytes(const void* at) { return _mm512_loadu_si512(at); }
  static Bytes loadFifths(const void* at) {
    return _mm512_broadcast_i64x4(_mm256_loadu_si256(static_cast<const __m256i*>(at)));
  }
  static Bytes lowNibbles(Bytes x) { return _mm512_and_si512(x, _mm512_set1_epi8(15)); }
  static Bytes highNibbles(Bytes x) { return lowNibbles(_mm512_srli_epi16(x, 4)); }

  // A rotation of 32 bits brings the wanted bit of each byte to bit 4.
  template <int kSub>
  static Bytes withFifths(Bytes codes, Bytes bits) {
    const __m512i turns = halves<(36 - kSub) % 32, (34 - kSub) % 32>();
    constexpr int kFirstOrBothOthers = 0xF8;
    return _mm512_ternarylogic_epi32(codes, _mm512_rolv_epi32(bits, turns), _mm512_set1_epi8(16),
                                     kFirstOrBothOthers);
  }

  // What every code stands for, computed once for the 32 codes of a sub-block.
  template <int kBits>
  struct Levels {
    Levels(float scale, float min) {
      const F first = _mm512_setr_ps(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
      low = _mm512_fmsub_ps(first, all(scale), all(min));
      if constexpr (kBits == 5) {
        const F second = add(first, all(16.0f));
        high = _mm512_fmsub_ps(second, all(scale), all(min));
      }
    }

    void store(Half::Bytes codes, float* at) const {
      const __m128i sixteens[] = {_mm256_castsi256_si128(codes),
                                  _mm256_extracti128_si256(codes, 1)};
      for (size_t i = 0; i < 2; ++i) {
        const __m512i places = _mm512_cvtepu8_epi32(sixteens[i]);
        if constexpr (kBits == 5) {
          Avx512::store(at + i * kFloats, _mm512_permutex2var_ps(low, places, high));
        } else {
          Avx512::store(at + i * kFloats, _mm512_permutexvar_ps(places, low));
        }
      }
    }

    F low;   // codes 0 to 15
    F high;  // codes 16 to 31
  };

  // ---- products of codes and limbs

  // The scale codes of eight sub-blocks, in every group of 16 bytes.
  struct Scales {
    Scales() = default;
    explicit Scales(const Half::Codes& all) : codes(_mm512_broadcast_i32x4(all.bytes)) {}

    // Pairs of words: the scale codes of kSub and kSub + 1, in the second half of the two behind.
    template <int kSub>
    __m512i pairs() const {
      constexpr auto kPlaces = static_cast<int>(0x80008000u | (kSub + 1) << 16 | kSub);
      return _mm512_shuffle_epi8(codes, halves<kPlaces, kPlaces + 0x00020002>());
    }

    __m512i codes;
  };

  using Sums = __m512i;

  static Sums zeroSums() { return _mm512_setzero_si512(); }

  // Four products of a code below 32 and a limb fit 16 bits: those of the low and those of the high
  // nibbles share 32 bits, and one product of words takes the scales of both.
  template <int kSub>
  static Sums addProducts(Sums sums, Bytes low, Bytes high, const int8_t* lowLimbs,
                          const int8_t* highLimbs, const Scales& scales) {
    constexpr __mmask64 kUpperWords = 0xCCCCCCCCCCCCCCCC;
    const __m512i lowerToUpper = _mm512_set4_epi32(0x0D0C0000, 0x09080000, 0x05040000, 0x01000000);
    const __m512i none = _mm512_setzero_si512();
    const __m512i first = _mm512_dpbusd_epi32(none, low, loadBytes(lowLimbs));
    const __m512i second = _mm512_dpbusd_epi32(none, high, loadBytes(highLimbs));
    const __m512i both = _mm512_mask_shuffle_epi8(first, kUpperWords, second, lowerToUpper);
    return _mm512_dpwssd_epi32(sums, both, scales.pairs<kSub>());
  }

  static Half::F toFloats(Sums sums) {
    return _mm256_cvtepi32_ps(
        _mm256_add_epi32(_mm512_castsi512_si256(sums), _mm512_extracti64x4_epi64(sums, 1)));
  }

  // ---- products of words

  static constexpr bool kTakesWords = true;

  struct WordScales : Scales {
    using Scales::Scales;

    template <int kSub>
    __m512i of() const {
      constexpr auto kPlaces = static_cast<int>(0x80008000u | kSub << 16 | kSub);
      return _mm512_shuffle_epi8(codes, halves<kPlaces, kPlaces + 0x00020002>());
    }
  };

  using Words = __m512i;

  static Words evenWords(Bytes codes, __m512i scales) {
    return _mm512_maddubs_epi16(codes, scales);
  }
  static Words oddWords(Bytes codes, __m512i scales) {
    return _mm512_maddubs_epi16(codes, _mm512_slli_epi16(scales, 8));
  }
  static Words allWords(int16_t word) { return _mm512_set1_epi16(word); }
  static Words loadWords(const int16_t* at) { return loadBytes(at); }
  static Words addedWords(Words a, Words b) { return _mm512_add_epi16(a, b); }

  static Sums addWordProducts(Sums sums, Words words, Words inputs) {
    return _mm512_dpwssd_epi32(sums, words, inputs);
  }
};

}  // namespace

}  // namespace qwen35
