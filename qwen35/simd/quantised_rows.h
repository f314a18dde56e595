// Quantised dot products, lane-generic: codes times limbs in byte products, exact in integers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"

namespace qwen35 {

namespace {

inline constexpr size_t kSpanBlocks = kSpan / kChunk;

// Rows whose sums are built up span by span, so that the quantised input of a span stays in L1;
// and how many rows ahead their bytes are prefetched.
inline constexpr size_t kRowsPerTile = 16;
inline constexpr size_t kRowsAhead = 4;

// The limbs of a super-block.
using Limbs = const int8_t (*)[kInputLimbs][2][kSubLen];

// Sums per limb of one super-block; without the last limb unless it is kept.
template <typename V, bool kLast>
struct LimbSums {
  static constexpr size_t kFirst = kLast ? 0 : 1;
  typename V::Sums sum[kInputLimbs];

  LimbSums() {
    for (size_t p = 0; p < kInputLimbs; ++p) {
      sum[p] = V::zeroSums();
    }
  }

  // low: the codes of sub-block kSub, high: those of the next.
  template <int kSub>
  void add(typename V::Bytes low, typename V::Bytes high, const typename V::Scales& scales,
           Limbs limbs) {
    constexpr size_t kSlot = kSub / 4 * 2;
    constexpr size_t kHalf = kSub % 4 / 2;
#pragma GCC unroll 4
    for (size_t p = kFirst; p < kInputLimbs; ++p) {
      sum[p] = V::template addProducts<kSub>(sum[p], low, high, limbs[kSlot][p][kHalf],
                                             limbs[kSlot + 1][p][kHalf], scales);
    }
  }

  typename V::Half::F value() const {
    using H = typename V::Half;
    typename H::F units = V::toFloats(sum[1]);
    if constexpr (kLast) {
      units = H::fma(V::toFloats(sum[0]), H::all(0x1p-8f), units);
    }
    const typename H::F lower = H::fma(V::toFloats(sum[2]), H::all(256.0f), units);
    return H::fma(V::toFloats(sum[3]), H::all(65536.0f), lower);
  }
};

// Bytes number kBytes of a super-block's codes: their low nibbles are those of sub-block kSub (and
// kSub + 2 where Bytes hold two), their high ones those of the next.
template <typename V, typename Format, int kBytes>
struct CodeBytes {
  static constexpr int kSub = kBytes * 2 * V::kSubBlocks;

  explicit CodeBytes(const uint8_t* super) {
    const uint8_t* at = super + Format::kNibbles + kBytes * kSubLen * V::kSubBlocks;
    const typename V::Bytes nibbles = V::loadBytes(at);
    low = V::lowNibbles(nibbles);
    high = V::highNibbles(nibbles);
    if constexpr (Format::kBits == 5) {
      const typename V::Bytes bits = V::loadFifths(super + kHeaderBytes);
      low = V::template withFifths<kSub>(low, bits);
      high = V::template withFifths<kSub + 1>(high, bits);
    }
  }

  typename V::Bytes low;
  typename V::Bytes high;
};

template <typename V, typename Format, int kBytes, bool kLast>
void addCodes(const uint8_t* super, const typename V::Scales& scales, Limbs limbs,
              LimbSums<V, kLast>& sums) {
  const CodeBytes<V, Format, kBytes> codes(super);
  sums.template add<codes.kSub>(codes.low, codes.high, scales, limbs);
}

// Inlined for both: a call would have registers saved for every super-block, also without one.
template <typename V, typename Format, bool kLast>
[[gnu::always_inline]] inline typename V::Half::F blockValue(const uint8_t* super,
                                                             const typename V::Scales& scales,
                                                             Limbs limbs) {
  LimbSums<V, kLast> sums;
  addCodes<V, Format, 0>(super, scales, limbs, sums);
  addCodes<V, Format, 1>(super, scales, limbs, sums);
  if constexpr (V::kSubBlocks == 1) {
    addCodes<V, Format, 2>(super, scales, limbs, sums);
    addCodes<V, Format, 3>(super, scales, limbs, sums);
  }
  return sums.value();
}

// What the codes of V::kHeadersAtOnce super-blocks are multiplied with.
template <typename V>
struct BlockScales {
  typename V::Scales scales[V::kHeadersAtOnce];
  float factors[V::kHeadersAtOnce];  // super-scale times input scale
};

// Reads `count` headers, from super-block `first` of the input on; low: the minimums times the sums
// of the input are added to it.
template <typename V, typename Format>
void openBlocks(const uint8_t* super, const QuantisedInput* x, size_t first, size_t count,
                BlockScales<V>& out, typename V::Half::F& low) {
  using H = typename V::Half;
  for (size_t i = 0; i < count; ++i, super += Format::kBlockBytes) {
    const QuantisedInput& group = x[(first + i) / kGroupSuperBlocks];
    const size_t block = (first + i) % kGroupSuperBlocks;
    float superScale;
    float superMinimum;
    H::loadHalves(super, superScale, superMinimum);
    const typename H::Codes codes(subBlockCodes(super));
    out.scales[i] = typename V::Scales(codes);
    out.factors[i] = superScale * group.scales[block];
    const typename H::F minimums = H::mul(H::all(superMinimum), codes.minimums());
    low = H::fma(minimums, H::load(group.sums[block]), low);
  }
}

template <typename V, typename Format>
void prefetchBlock(const uint8_t* super, size_t stride) {
  const uintptr_t ahead = reinterpret_cast<uintptr_t>(super) + kRowsAhead * stride;
  for (size_t line = 0; line < Format::kBlockBytes; line += kLineBytes) {
    V::prefetch(ahead + line);
  }
}

// The bytes of the tile that follows, in the order of their addresses, for L2: those of rows of
// several spans are not read in that order, and the processor does not foresee them.
template <typename V, typename Format>
class NextTile {
 public:
  NextTile(const uint8_t* first, size_t rows, size_t stride, size_t blocks)
      : at(reinterpret_cast<uintptr_t>(first) + rows * stride), isForeseen(blocks <= kSpanBlocks) {}

  void prefetchBlock() {
    if (isForeseen) {
      return;
    }
    for (size_t line = 0; line < Format::kBlockBytes; line += kLineBytes) {
      V::prefetchToL2(at + line);
    }
    at += Format::kBlockBytes;
  }

 private:
  uintptr_t at;
  bool isForeseen;
};

// One span of a row: `blocks` super-blocks, at most kSpanBlocks; rows are `stride` bytes apart.
template <typename V, typename Format>
typename V::Half::F spanSum(const uint8_t* super, size_t stride, const QuantisedInput* x,
                            size_t blocks, NextTile<V, Format>& next) {
  using H = typename V::Half;
  typename H::F low = H::zero();
  typename H::F chain = H::zero();
  for (size_t first = 0; first < blocks; first += V::kHeadersAtOnce) {
    const size_t rest = blocks - first;
    const size_t count = rest < V::kHeadersAtOnce ? rest : V::kHeadersAtOnce;
    BlockScales<V> opened;
    openBlocks<V, Format>(super, x, first, count, opened, low);
    for (size_t i = 0; i < count; ++i, super += Format::kBlockBytes) {
      prefetchBlock<V, Format>(super, stride);
      next.prefetchBlock();
      const QuantisedInput& group = x[(first + i) / kGroupSuperBlocks];
      const size_t block = (first + i) % kGroupSuperBlocks;
      const typename V::Scales& scales = opened.scales[i];
      const typename H::F value =
          group.keepsLastLimb[block]
              ? blockValue<V, Format, true>(super, scales, group.limbs[block])
              : blockValue<V, Format, false>(super, scales, group.limbs[block]);
      chain = H::fma(value, H::all(opened.factors[i]), chain);
    }
  }
  return H::sub(chain, low);
}

// Sums of `rows` rows, at most kRowsPerTile.
template <typename V, typename Format>
void tileSums(const uint8_t* first, size_t stride, const QuantisedInput* x, float* out, size_t rows,
              size_t blocks) {
  using H = typename V::Half;
  typename H::F total[kRowsPerTile];
  for (size_t r = 0; r < rows; ++r) {
    total[r] = H::zero();
  }
  NextTile<V, Format> next(first, rows, stride, blocks);
  for (size_t b = 0; b < blocks; b += kSpanBlocks) {
    const size_t count = blocks - b < kSpanBlocks ? blocks - b : kSpanBlocks;
    const uint8_t* super = first + b * Format::kBlockBytes;
    for (size_t r = 0; r < rows; ++r, super += stride) {
      total[r] = H::add(total[r],
                        spanSum<V, Format>(super, stride, x + b / kGroupSuperBlocks, count, next));
    }
  }
  for (size_t r = 0; r < rows; ++r) {
    out[r] = H::fold(total[r]);
  }
}

template <typename V, typename Format>
void quantisedRows(const void* weights, const QuantisedInput* x, float* out, size_t rows,
                   size_t cols) {
  const auto* row = static_cast<const uint8_t*>(weights);
  const size_t blocks = cols / kChunk;
  const size_t stride = blocks * Format::kBlockBytes;
  for (size_t r = 0; r < rows; r += kRowsPerTile, row += kRowsPerTile * stride) {
    const size_t count = rows - r < kRowsPerTile ? rows - r : kRowsPerTile;
    tileSums<V, Format>(row, stride, x, out + r, count, blocks);
  }
}

// The largest magnitude of a super-block; false when an element is too large, infinite or NaN.
inline bool largestMagnitude(const float* x, float& largest) {
  int32_t most = 0;  // magnitudes order as their bits do, NaN above all
  for (size_t i = 0; i < kChunk; ++i) {
    int32_t bits;
    std::memcpy(&bits, x + i, sizeof bits);
    bits &= 0x7FFFFFFF;
    most = bits > most ? bits : most;
  }
  std::memcpy(&largest, &most, sizeof largest);
  return largest < kInputLimit;
}

// 2^exponent, a normal number.
inline float powerOfTwo(int exponent) {
  const uint32_t bits = static_cast<uint32_t>(127 + exponent) << 23;
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

inline int fixedShift(float largest) {
  if (largest == 0.0f) {
    return 8;
  }
  if (largest < 0x1p-100f) {
    return kMaxFixedShift;
  }
  uint32_t bits;
  std::memcpy(&bits, &largest, sizeof bits);
  int shift = 30 - (static_cast<int>(bits >> 23) - 127);
  if (shift > kMaxFixedShift) {
    return kMaxFixedShift;
  }
  if (largest * powerOfTwo(shift) > static_cast<float>(kLargestFixed)) {
    --shift;
  }
  return shift;
}

// With 128 added to every limb they are plain bytes; the top bit of each then restores the sign.
inline uint32_t limbBytes(int32_t fixed) {
  return (static_cast<uint32_t>(fixed) + 0x80808080u) ^ 0x80808080u;
}

inline void quantiseSubBlock(const int32_t* fixed, size_t block, size_t sub, QuantisedInput& out) {
  int8_t(*limbs)[2][kSubLen] = out.limbs[block][sub / 4 * 2 + sub % 2];
  const size_t half = sub % 4 / 2;
  int32_t upper = 0;  // the sum without last limbs, in units of limb 1
  int32_t lower = 0;  // the sum of last limbs
  for (size_t i = 0; i < kSubLen; ++i) {
    const uint32_t bytes = limbBytes(fixed[i]);
    const auto last = static_cast<int8_t>(bytes);
    limbs[0][half][i] = last;
    limbs[1][half][i] = static_cast<int8_t>(bytes >> 8);
    limbs[2][half][i] = static_cast<int8_t>(bytes >> 16);
    limbs[3][half][i] = static_cast<int8_t>(bytes >> 24);
    upper += (fixed[i] - last) >> 8;
    lower += last;
  }
  int64_t sum = int64_t{upper} * 256;
  if (out.keepsLastLimb[block]) {
    sum += lower;
  } else {
    std::memset(limbs[0][half], 0, kSubLen);
  }
  out.sums[block][sub] = static_cast<float>(sum) * 0x1p-8f * out.scales[block];
}

// False when an element is too large, infinite or NaN.
template <typename V>
bool quantiseSuperBlock(const float* x, size_t block, QuantisedInput& out) {
  float largest;
  if (!largestMagnitude(x, largest)) {
    return false;
  }
  const int shift = fixedShift(largest);
  const typename V::F power = V::all(powerOfTwo(shift));
  alignas(64) int32_t fixed[kChunk];
  for (size_t i = 0; i < kChunk; i += V::kFloats) {
    V::storeRounded(fixed + i, V::mul(V::load(x + i), power));
  }
  int32_t magnitudes = 0;
  for (size_t i = 0; i < kChunk; ++i) {
    magnitudes += (fixed[i] < 0 ? -fixed[i] : fixed[i]) >> 8;
  }
  out.scales[block] = powerOfTwo(8 - shift);
  out.keepsLastLimb[block] = magnitudes < kOutlierSum;
  for (size_t sub = 0; sub < kSubBlocksOfBlock; ++sub) {
    quantiseSubBlock(fixed + sub * kSubLen, block, sub, out);
  }
  return true;
}

inline void clearSuperBlock(size_t block, QuantisedInput& out) {
  std::memset(out.limbs[block], 0, sizeof out.limbs[block]);
  std::memset(out.sums[block], 0, sizeof out.sums[block]);
  out.scales[block] = 0.0f;
  out.keepsLastLimb[block] = false;
}

template <typename V>
bool quantiseInput(const float* x, size_t cols, QuantisedInput* groups) {
  const size_t blocks = cols / kChunk;
  for (size_t b = 0; b < blocks; ++b) {
    if (!quantiseSuperBlock<V>(x + b * kChunk, b % kGroupSuperBlocks,
                               groups[b / kGroupSuperBlocks])) {
      return false;
    }
  }
  for (size_t b = blocks; b % kGroupSuperBlocks != 0; ++b) {
    clearSuperBlock(b % kGroupSuperBlocks, groups[b / kGroupSuperBlocks]);
  }
  return true;
}

}  // namespace

}  // namespace qwen35
