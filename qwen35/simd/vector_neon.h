// The vector operations of Armv8.2 with dot products, for the lane-generic kernels. See lanes.h.
//
// A register holds 16 bytes, so that everything here is a pair of registers. The pairs are structs
// of our own: the array types of arm_neon.h would ask for registers that follow one another.
#pragma once

#include <arm_neon.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"

namespace qwen35 {

namespace {

struct Neon {
  using Half = Neon;
  static constexpr size_t kGroups = 1;
  static constexpr size_t kFloats = kGroups * kLanes;

  // Twelve chains, three inputs and a row element fill the registers.
  static constexpr size_t kTileRows = 4;
  static constexpr size_t kTileInputs = 3;

  static constexpr size_t kHeadersAtOnce = 16;  // a span's

  static void prefetch(uintptr_t address) {
    __builtin_prefetch(reinterpret_cast<const void*>(address));
  }
  static void prefetchToL2(uintptr_t address) {
    constexpr int kL2 = 2;
    __builtin_prefetch(reinterpret_cast<const void*>(address), 0, kL2);
  }

  // ---- floats

  struct F {
    float32x4_t low;
    float32x4_t high;
  };

  static F zero() { return all(0.0f); }
  static F all(float x) { return {vdupq_n_f32(x), vdupq_n_f32(x)}; }
  static F load(const float* at) { return {vld1q_f32(at), vld1q_f32(at + 4)}; }
  static F loadRepeated(const float* at) { return load(at); }
  static void store(float* at, F x) {
    vst1q_f32(at, x.low);
    vst1q_f32(at + 4, x.high);
  }
  static F add(F a, F b) { return {vaddq_f32(a.low, b.low), vaddq_f32(a.high, b.high)}; }
  static F sub(F a, F b) { return {vsubq_f32(a.low, b.low), vsubq_f32(a.high, b.high)}; }
  static F mul(F a, F b) { return {vmulq_f32(a.low, b.low), vmulq_f32(a.high, b.high)}; }
  static F fma(F a, F b, F c) {
    return {vfmaq_f32(c.low, a.low, b.low), vfmaq_f32(c.high, a.high, b.high)};
  }

  static F div(F a, F b) { return {vdivq_f32(a.low, b.low), vdivq_f32(a.high, b.high)}; }
  static F atLeast(F low, F x) {
    return {vbslq_f32(vcltq_f32(x.low, low.low), low.low, x.low),
            vbslq_f32(vcltq_f32(x.high, low.high), low.high, x.high)};
  }
  static F atMost(F high, F x) {
    return {vbslq_f32(vcgtq_f32(x.low, high.low), high.low, x.low),
            vbslq_f32(vcgtq_f32(x.high, high.high), high.high, x.high)};
  }

  static float fold(F x) {
    const float32x4_t four = vaddq_f32(x.low, x.high);
    return vpadds_f32(vadd_f32(vget_low_f32(four), vget_high_f32(four)));
  }

  static F loadF32(const uint8_t* at) {
    return {vreinterpretq_f32_u8(vld1q_u8(at)), vreinterpretq_f32_u8(vld1q_u8(at + 16))};
  }
  static F loadBf16(const uint8_t* at) {
    const uint16x8_t halves = vreinterpretq_u16_u8(vld1q_u8(at));
    const uint16x8_t zeros = vdupq_n_u16(0);
    return {vreinterpretq_f32_u16(vzip1q_u16(zeros, halves)),
            vreinterpretq_f32_u16(vzip2q_u16(zeros, halves))};
  }
  static F loadSignedBytes(const uint8_t* at) {
    const int16x8_t words = vmovl_s8(vreinterpret_s8_u8(vld1_u8(at)));
    return {vcvtq_f32_s32(vmovl_s16(vget_low_s16(words))), vcvtq_f32_s32(vmovl_high_s16(words))};
  }
  static float loadHalf(const uint8_t* at) {
    __fp16 half;
    std::memcpy(&half, at, sizeof half);
    return static_cast<float>(half);
  }
  static void loadHalves(const uint8_t* at, float& first, float& second) {
    first = loadHalf(at);
    second = loadHalf(at + sizeof(__fp16));
  }

  static void storeRounded(int32_t* at, F x) {
    vst1q_s32(at, vcvtnq_s32_f32(x.low));
    vst1q_s32(at + 4, vcvtnq_s32_f32(x.high));
  }

  // ---- doubles

  struct D {
    float64x2_t part[4];
  };

  static D toDouble(F x) {
    return {{vcvt_f64_f32(vget_low_f32(x.low)), vcvt_high_f64_f32(x.low),
             vcvt_f64_f32(vget_low_f32(x.high)), vcvt_high_f64_f32(x.high)}};
  }
  static F toFloat(D x) {
    return {vcvt_high_f32_f64(vcvt_f32_f64(x.part[0]), x.part[1]),
            vcvt_high_f32_f64(vcvt_f32_f64(x.part[2]), x.part[3])};
  }
  static D allD(double x) {
    const float64x2_t two = vdupq_n_f64(x);
    return {{two, two, two, two}};
  }
  static D subD(D a, D b) {
    return {{vsubq_f64(a.part[0], b.part[0]), vsubq_f64(a.part[1], b.part[1]),
             vsubq_f64(a.part[2], b.part[2]), vsubq_f64(a.part[3], b.part[3])}};
  }
  static D fmaD(D a, D b, D c) {
    return {{vfmaq_f64(c.part[0], a.part[0], b.part[0]), vfmaq_f64(c.part[1], a.part[1], b.part[1]),
             vfmaq_f64(c.part[2], a.part[2], b.part[2]),
             vfmaq_f64(c.part[3], a.part[3], b.part[3])}};
  }
  static D addExponent(D p, D t) {
    return {{addShifted(p.part[0], t.part[0]), addShifted(p.part[1], t.part[1]),
             addShifted(p.part[2], t.part[2]), addShifted(p.part[3], t.part[3])}};
  }

  static float64x2_t addShifted(float64x2_t p, float64x2_t t) {
    const int64x2_t shifted = vshlq_n_s64(vreinterpretq_s64_f64(t), 52);
    return vreinterpretq_f64_s64(vaddq_s64(vreinterpretq_s64_f64(p), shifted));
  }

  // ---- codes

  static constexpr size_t kSubBlocks = 1;

  struct Bytes {
    uint8x16_t low;
    uint8x16_t high;
  };

  static Bytes loadBytes(const void* at) {
    const auto* bytes = static_cast<const uint8_t*>(at);
    return {vld1q_u8(bytes), vld1q_u8(bytes + 16)};
  }
  static Bytes loadFifths(const void* at) { return loadBytes(at); }
  static Bytes lowNibbles(Bytes x) {
    return {vandq_u8(x.low, vdupq_n_u8(15)), vandq_u8(x.high, vdupq_n_u8(15))};
  }
  static Bytes highNibbles(Bytes x) { return {vshrq_n_u8(x.low, 4), vshrq_n_u8(x.high, 4)}; }

  template <int kSub>
  static Bytes withFifths(Bytes codes, Bytes bits) {
    const uint8x16_t fifth = vdupq_n_u8(16);
    return {vbslq_u8(fifth, fifthsInPlace<kSub>(bits.low), codes.low),
            vbslq_u8(fifth, fifthsInPlace<kSub>(bits.high), codes.high)};
  }

  template <int kSub>
  static uint8x16_t fifthsInPlace(uint8x16_t bits) {
    if constexpr (kSub <= 4) {
      return vshlq_n_u8(bits, 4 - kSub);
    } else {
      return vshrq_n_u8(bits, kSub - 4);
    }
  }

  static F bytesToFloats(uint8x8_t bytes) {
    const uint16x8_t words = vmovl_u8(bytes);
    return {vcvtq_f32_u32(vmovl_u16(vget_low_u16(words))), vcvtq_f32_u32(vmovl_high_u16(words))};
  }

  struct Codes {
    explicit Codes(const SubBlockCodes& codes)
        : scaleBytes(vreinterpret_u8_u32(vtrn1_u32(words(codes.first), words(codes.last)))),
          minimumBytes(vreinterpret_u8_u32(vtrn2_u32(words(codes.first), words(codes.last)))) {}

    static uint32x2_t words(uint64_t codes) { return vcreate_u32(codes); }

    F scales() const { return bytesToFloats(scaleBytes); }
    F minimums() const { return bytesToFloats(minimumBytes); }

    uint8x8_t scaleBytes;
    uint8x8_t minimumBytes;
  };

  template <int kBits>
  struct Levels {
    Levels(float scale, float min) : scales(all(scale)), negatedMins(all(-min)) {}

    void store(Bytes codes, float* at) const {
      const uint8x8_t eights[] = {vget_low_u8(codes.low), vget_high_u8(codes.low),
                                  vget_low_u8(codes.high), vget_high_u8(codes.high)};
      for (size_t i = 0; i < 4; ++i) {
        Neon::store(at + i * kLanes, fma(bytesToFloats(eights[i]), scales, negatedMins));
      }
    }

    F scales;
    F negatedMins;
  };

  // ---- products of codes and limbs

  // The scale codes of eight sub-blocks as words, one of which multiplies whole registers.
  struct Scales {
    Scales() = default;
    explicit Scales(const Codes& codes)
        : words(vreinterpretq_s16_u16(vmovl_u8(codes.scaleBytes))) {}

    int16x8_t words;
  };

  struct Sums {
    int32x4_t low;
    int32x4_t high;
  };

  static Sums zeroSums() { return {vdupq_n_s32(0), vdupq_n_s32(0)}; }

  template <int kSub>
  static Sums addProducts(Sums sums, Bytes low, Bytes high, const int8_t* lowLimbs,
                          const int8_t* highLimbs, const Scales& scales) {
    sums = addScaled<kSub>(sums, low, lowLimbs, scales);
    return addScaled<kSub + 1>(sums, high, highLimbs, scales);
  }

  // Codes below 32 are the same in signed bytes, and four products with limbs fit 16 bits. Words
  // are multiplied in half of the time of double words, on cores with one multiplier of integers.
  template <int kSub>
  static Sums addScaled(Sums sums, Bytes codes, const int8_t* limbs, const Scales& scale) {
    const int32x4_t none = vdupq_n_s32(0);
    const int32x4_t low = vdotq_s32(none, vreinterpretq_s8_u8(codes.low), vld1q_s8(limbs));
    const int32x4_t high = vdotq_s32(none, vreinterpretq_s8_u8(codes.high), vld1q_s8(limbs + 16));
    const int16x8_t fours = vuzp1q_s16(vreinterpretq_s16_s32(low), vreinterpretq_s16_s32(high));
    return {vmlal_laneq_s16(sums.low, vget_low_s16(fours), scale.words, kSub),
            vmlal_high_laneq_s16(sums.high, fours, scale.words, kSub)};
  }

  static F toFloats(Sums sums) { return {vcvtq_f32_s32(sums.low), vcvtq_f32_s32(sums.high)}; }

  // Products of words go to lanes one by one here: they take as many instructions as those of
  // bytes.
  static constexpr bool kTakesWords = false;
};

}  // namespace

}  // namespace qwen35
