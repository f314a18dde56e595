// Quantised dot products for AVX2: codes times limbs in byte products, exact in integers. See
// kernels_avx2.cpp for what this file may include.
#include "qwen35/simd/avx2_quantised.h"

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "qwen35/simd/avx2_common.h"
#include "qwen35/simd/kernel_table.h"

namespace qwen35::avx2 {

namespace {

static_assert(kLanes == 8, "one register holds the lanes of a dot product");

constexpr size_t kSubLen = 32;
constexpr size_t kSubBlocks = kChunk / kSubLen;
constexpr size_t kHeaderBytes = 16;  // super-scale, super-minimum, 12 bytes of scales and minimums
constexpr size_t kSpanBlocks = kSpan / kChunk;
constexpr size_t kSpanGroups = kSpanBlocks / kGroupSuperBlocks;
constexpr size_t kLineBytes = 64;

// Rows whose sums are built up span by span, so that the quantised input of a span stays in
// L1; and how many rows ahead their bytes are prefetched.
constexpr size_t kRowsPerTile = 16;
constexpr size_t kRowsAhead = 4;

// The headers of four super-blocks, element j of each field for block j.
struct BlockHeaders {
  __m128i supers;     // super-scale in the low half, super-minimum in the high half
  __m128i scales[2];  // bytes: sub-blocks 0 to 3, then 4 to 7
  __m128i minimums[2];
};

// Four 6-bit fields to a word, in bytes: the first four scales and minimums are the low bits of
// words 0 and 1; of the last four, word 2 holds the low four bits (scales in its low nibbles,
// minimums in its high ones) and words 0 and 1 hold the two upper bits.
BlockHeaders loadHeaders(const uint8_t* const (&supers)[kGroupSuperBlocks]) {
  __m128i header[kGroupSuperBlocks];
  for (size_t j = 0; j < kGroupSuperBlocks; ++j) {
    header[j] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(supers[j]));
  }
  const __m128i low01 = _mm_unpacklo_epi32(header[0], header[1]);
  const __m128i low23 = _mm_unpacklo_epi32(header[2], header[3]);
  const __m128i high01 = _mm_unpackhi_epi32(header[0], header[1]);
  const __m128i high23 = _mm_unpackhi_epi32(header[2], header[3]);
  const __m128i word0 = _mm_unpackhi_epi64(low01, low23);
  const __m128i word1 = _mm_unpacklo_epi64(high01, high23);
  const __m128i word2 = _mm_unpackhi_epi64(high01, high23);
  const __m128i six = _mm_set1_epi8(0x3F);
  const __m128i four = _mm_set1_epi8(0x0F);
  const __m128i upperTwo = _mm_set1_epi8(0x30);
  BlockHeaders out;
  out.supers = _mm_unpacklo_epi64(low01, low23);
  out.scales[0] = _mm_and_si128(word0, six);
  out.minimums[0] = _mm_and_si128(word1, six);
  out.scales[1] =
      _mm_or_si128(_mm_and_si128(word2, four), _mm_and_si128(_mm_srli_epi32(word0, 2), upperTwo));
  out.minimums[1] = _mm_or_si128(_mm_and_si128(_mm_srli_epi32(word2, 4), four),
                                 _mm_and_si128(_mm_srli_epi32(word1, 2), upperTwo));
  return out;
}

// What the codes of four super-blocks are multiplied with.
struct GroupScales {
  alignas(32) uint32_t scale[2][kGroupSuperBlocks][4];  // the scale code twice, as pairs of words
  alignas(16) float factor[kGroupSuperBlocks];          // super-scale times input scale
};

void storeScalePairs(__m128i bytes, uint32_t* pairs) {
  const __m256i twice = _mm256_broadcastsi128_si256(bytes);
  const __m256i first = _mm256_setr_epi8(0, -1, 0, -1, 1, -1, 1, -1, 2, -1, 2, -1, 3, -1, 3, -1, 4,
                                         -1, 4, -1, 5, -1, 5, -1, 6, -1, 6, -1, 7, -1, 7, -1);
  const __m256i second =
      _mm256_setr_epi8(8, -1, 8, -1, 9, -1, 9, -1, 10, -1, 10, -1, 11, -1, 11, -1, 12, -1, 12, -1,
                       13, -1, 13, -1, 14, -1, 14, -1, 15, -1, 15, -1);
  auto* out = reinterpret_cast<__m256i*>(pairs);
  _mm256_store_si256(out, _mm256_shuffle_epi8(twice, first));
  _mm256_store_si256(out + 1, _mm256_shuffle_epi8(twice, second));
}

// Scales of a group into out; its minimums, times the input's sums, are added to low.
__m256 openGroup(const uint8_t* const (&supers)[kGroupSuperBlocks], const QuantisedInput& x,
                 GroupScales& out, __m256 low) {
  const BlockHeaders headers = loadHeaders(supers);
  storeScalePairs(headers.scales[0], out.scale[0][0]);
  storeScalePairs(headers.scales[1], out.scale[1][0]);
  // Super-scales at the even places, super-minimums at the odd ones.
  const __m256 supers32 = _mm256_cvtph_ps(headers.supers);
  const __m256 superScales =
      _mm256_permutevar8x32_ps(supers32, _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6));
  _mm_store_ps(out.factor, _mm_mul_ps(_mm256_castps256_ps128(superScales), _mm_load_ps(x.scales)));
  const __m256 first =
      _mm256_permutevar8x32_ps(supers32, _mm256_setr_epi32(1, 1, 1, 1, 3, 3, 3, 3));
  const __m256 second =
      _mm256_permutevar8x32_ps(supers32, _mm256_setr_epi32(5, 5, 5, 5, 7, 7, 7, 7));
  const auto addMinimums = [&low](__m256 super, __m128i codes, const float* sums) {
    const __m256 minimum = _mm256_mul_ps(super, _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(codes)));
    low = _mm256_fmadd_ps(minimum, _mm256_load_ps(sums), low);
  };
  addMinimums(first, headers.minimums[0], x.sums[0]);
  addMinimums(first, headers.minimums[1], x.sums[1]);
  addMinimums(second, _mm_srli_si128(headers.minimums[0], 8), x.sums[2]);
  addMinimums(second, _mm_srli_si128(headers.minimums[1], 8), x.sums[3]);
  return low;
}

// Sums per limb of one super-block, eight lanes each; without the last limb unless it is kept.
template <bool kLast>
struct LimbSums {
  static constexpr size_t kFirst = kLast ? 0 : 1;
  __m256i sum[kInputLimbs];

  LimbSums() {
    for (__m256i& lanes : sum) {
      lanes = _mm256_setzero_si256();
    }
  }

  // Adds a sub-block: unsigned codes below 32 times limbs, in pairs to words, times the scale code
  // in pairs to lanes.
  void add(__m256i codes, __m256i scale, const int8_t (&limbs)[kInputLimbs][kSubLen]) {
    for (size_t p = kFirst; p < kInputLimbs; ++p) {
      const __m256i words = _mm256_maddubs_epi16(codes, load32Bytes(limbs[p]));
      sum[p] = _mm256_add_epi32(sum[p], _mm256_madd_epi16(words, scale));
    }
  }

  __m256 value() const {
    __m256 units = _mm256_cvtepi32_ps(sum[1]);
    if constexpr (kLast) {
      units = _mm256_fmadd_ps(_mm256_cvtepi32_ps(sum[0]), _mm256_set1_ps(0x1p-8f), units);
    }
    const __m256 lower = _mm256_fmadd_ps(_mm256_cvtepi32_ps(sum[2]), _mm256_set1_ps(256.0f), units);
    return _mm256_fmadd_ps(_mm256_cvtepi32_ps(sum[3]), _mm256_set1_ps(65536.0f), lower);
  }
};

struct Q4K {
  static constexpr size_t kBlockBytes = 144;

  // The codes of sub-blocks 2 kPair and 2 kPair + 1: the low nibbles of 32 bytes, then the high.
  template <size_t kPair>
  static void codes(const uint8_t* super, __m256i& low, __m256i& high) {
    const __m256i nibble = _mm256_set1_epi8(15);
    const __m256i bytes = load32Bytes(super + kHeaderBytes + kPair * kSubLen);
    low = _mm256_and_si256(bytes, nibble);
    high = _mm256_and_si256(_mm256_srli_epi16(bytes, 4), nibble);
  }
};

struct Q5K {
  static constexpr size_t kBlockBytes = 176;

  // 16 in every byte whose bit kSub is set: the fifth bits of sub-block kSub.
  template <size_t kSub>
  static __m256i fifthBits(__m256i bytes) {
    const __m256i sixteen = _mm256_set1_epi8(16);
    if constexpr (kSub <= 4) {
      return _mm256_and_si256(_mm256_slli_epi16(bytes, 4 - kSub), sixteen);
    } else {
      return _mm256_and_si256(_mm256_srli_epi16(bytes, kSub - 4), sixteen);
    }
  }

  template <size_t kPair>
  static void codes(const uint8_t* super, __m256i& low, __m256i& high) {
    Q4K::codes<kPair>(super + kSubLen, low, high);
    const __m256i bits = load32Bytes(super + kHeaderBytes);
    low = _mm256_or_si256(low, fifthBits<2 * kPair>(bits));
    high = _mm256_or_si256(high, fifthBits<2 * kPair + 1>(bits));
  }
};

// The limbs of a super-block, sub-block by sub-block.
using Limbs = const int8_t (*)[kInputLimbs][kSubLen];

template <typename Format, size_t kPair, bool kLast>
void addPair(const uint8_t* super, const uint32_t* scale, Limbs limbs, LimbSums<kLast>& sums) {
  __m256i low;
  __m256i high;
  Format::template codes<kPair>(super, low, high);
  sums.add(low, _mm256_set1_epi32(static_cast<int>(scale[0])), limbs[2 * kPair]);
  sums.add(high, _mm256_set1_epi32(static_cast<int>(scale[1])), limbs[2 * kPair + 1]);
}

template <typename Format, bool kLast>
__m256 blockValue(const uint8_t* super, const GroupScales& scales, size_t block, Limbs limbs) {
  LimbSums<kLast> sums;
  addPair<Format, 0>(super, scales.scale[0][block], limbs, sums);
  addPair<Format, 1>(super, scales.scale[0][block] + 2, limbs, sums);
  addPair<Format, 2>(super, scales.scale[1][block], limbs, sums);
  addPair<Format, 3>(super, scales.scale[1][block] + 2, limbs, sums);
  return sums.value();
}

template <typename Format>
__m256 addBlock(const uint8_t* super, const GroupScales& scales, size_t block,
                const QuantisedInput& x, __m256 chain) {
  const __m256 value = x.keepsLastLimb[block]
                           ? blockValue<Format, true>(super, scales, block, x.limbs[block])
                           : blockValue<Format, false>(super, scales, block, x.limbs[block]);
  return _mm256_fmadd_ps(value, _mm256_broadcast_ss(&scales.factor[block]), chain);
}

// One span of a row: `blocks` super-blocks, at most kSpanBlocks; rows are `stride` bytes apart.
template <typename Format>
__m256 spanSum(const uint8_t* super, size_t stride, const QuantisedInput* x, size_t blocks) {
  static constexpr uint8_t kNoHeader[kHeaderBytes] = {};
  GroupScales scales[kSpanGroups];
  __m256 low = _mm256_setzero_ps();
  for (size_t b = 0; b < blocks; b += kGroupSuperBlocks) {
    const uint8_t* headers[kGroupSuperBlocks];
    for (size_t j = 0; j < kGroupSuperBlocks; ++j) {
      headers[j] = b + j < blocks ? super + (b + j) * Format::kBlockBytes : kNoHeader;
    }
    low = openGroup(headers, x[b / kGroupSuperBlocks], scales[b / kGroupSuperBlocks], low);
  }
  __m256 chain = _mm256_setzero_ps();
  for (size_t b = 0; b < blocks; ++b, super += Format::kBlockBytes) {
    const uintptr_t ahead = reinterpret_cast<uintptr_t>(super) + kRowsAhead * stride;
    for (size_t line = 0; line < Format::kBlockBytes; line += kLineBytes) {
      _mm_prefetch(reinterpret_cast<const char*>(ahead + line), _MM_HINT_T0);
    }
    chain = addBlock<Format>(super, scales[b / kGroupSuperBlocks], b % kGroupSuperBlocks,
                             x[b / kGroupSuperBlocks], chain);
  }
  return _mm256_sub_ps(chain, low);
}

// Sums of `rows` rows, at most kRowsPerTile.
template <typename Format>
void tileSums(const uint8_t* first, size_t stride, const QuantisedInput* x, float* out, size_t rows,
              size_t blocks) {
  __m256 total[kRowsPerTile];
  for (size_t r = 0; r < rows; ++r) {
    total[r] = _mm256_setzero_ps();
  }
  for (size_t b = 0; b < blocks; b += kSpanBlocks) {
    const size_t count = blocks - b < kSpanBlocks ? blocks - b : kSpanBlocks;
    const uint8_t* super = first + b * Format::kBlockBytes;
    for (size_t r = 0; r < rows; ++r, super += stride) {
      const __m256 sum = spanSum<Format>(super, stride, x + b / kGroupSuperBlocks, count);
      total[r] = _mm256_add_ps(total[r], sum);
    }
  }
  for (size_t r = 0; r < rows; ++r) {
    out[r] = fold(total[r]);
  }
}

template <typename Format>
void quantisedRows(const void* weights, const QuantisedInput* x, float* out, size_t rows,
                   size_t cols) {
  const auto* row = static_cast<const uint8_t*>(weights);
  const size_t blocks = cols / kChunk;
  const size_t stride = blocks * Format::kBlockBytes;
  for (size_t r = 0; r < rows; r += kRowsPerTile, row += kRowsPerTile * stride) {
    const size_t count = rows - r < kRowsPerTile ? rows - r : kRowsPerTile;
    tileSums<Format>(row, stride, x, out + r, count, blocks);
  }
}

// The largest magnitude of a super-block; false when an element is too large, infinite or NaN.
bool largestMagnitude(const float* x, float& largest) {
  const __m256 magnitudeBits = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
  __m256i most = _mm256_setzero_si256();  // magnitudes order as their bits do, NaN above all
  for (size_t i = 0; i < kChunk; i += kLanes) {
    const __m256 magnitude = _mm256_and_ps(_mm256_loadu_ps(x + i), magnitudeBits);
    most = _mm256_max_epi32(most, _mm256_castps_si256(magnitude));
  }
  __m128i four = _mm_max_epi32(_mm256_castsi256_si128(most), _mm256_extracti128_si256(most, 1));
  four = _mm_max_epi32(four, _mm_shuffle_epi32(four, _MM_SHUFFLE(1, 0, 3, 2)));
  four = _mm_max_epi32(four, _mm_shuffle_epi32(four, _MM_SHUFFLE(2, 3, 0, 1)));
  const int bits = _mm_cvtsi128_si32(four);
  std::memcpy(&largest, &bits, sizeof largest);
  return largest < kInputLimit;
}

double powerOfTwo(int exponent) {
  const uint64_t bits = static_cast<uint64_t>(1023 + exponent) << 52;
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

int fixedShift(float largest) {
  if (largest == 0.0f) {
    return 8;
  }
  uint64_t bits;
  const auto wide = static_cast<double>(largest);  // a normal number, for subnormal floats too
  std::memcpy(&bits, &wide, sizeof bits);
  int shift = 31 - (static_cast<int>(bits >> 52) - 1022);
  if (wide * powerOfTwo(shift) > kLargestFixed) {
    --shift;
  }
  return shift < kMaxFixedShift ? shift : kMaxFixedShift;
}

__m256i toFixed(const float* x, __m256d power) {
  const __m128i low = _mm256_cvtpd_epi32(_mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(x)), power));
  const __m128i high =
      _mm256_cvtpd_epi32(_mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(x + 4)), power));
  return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
}

int32_t addLanes(__m256i lanes) {
  __m128i four = _mm_add_epi32(_mm256_castsi256_si128(lanes), _mm256_extracti128_si256(lanes, 1));
  four = _mm_add_epi32(four, _mm_shuffle_epi32(four, _MM_SHUFFLE(1, 0, 3, 2)));
  four = _mm_add_epi32(four, _mm_shuffle_epi32(four, _MM_SHUFFLE(2, 3, 0, 1)));
  return _mm_cvtsi128_si32(four);
}

// With 128 added to every limb they are plain bytes; the top bit of each then restores the sign.
__m256i limbBytes(__m256i fixed) {
  const __m256i bias = _mm256_set1_epi32(static_cast<int>(0x80808080u));
  return _mm256_xor_si256(_mm256_add_epi32(fixed, bias), bias);
}

// Limbs of a sub-block given in fixed point.
void storeLimbs(const __m256i (&fixed)[4], int8_t (&limbs)[kInputLimbs][kSubLen]) {
  // Each half of a register: the four bytes of its elements, place by place.
  const __m256i byPlace = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15, 0,
                                           4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  __m256i places[4];
  for (size_t i = 0; i < 4; ++i) {
    places[i] = _mm256_shuffle_epi8(limbBytes(fixed[i]), byPlace);
  }
  // Words of four elements: 0, 8, 16, 24 in the low half of a register, 4, 12, 20, 28 in the high.
  const __m256i low01 = _mm256_unpacklo_epi32(places[0], places[1]);
  const __m256i low23 = _mm256_unpacklo_epi32(places[2], places[3]);
  const __m256i high01 = _mm256_unpackhi_epi32(places[0], places[1]);
  const __m256i high23 = _mm256_unpackhi_epi32(places[2], places[3]);
  const __m256i inOrder = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  const auto store = [&](size_t place, __m256i bytes) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(limbs[place]),
                       _mm256_permutevar8x32_epi32(bytes, inOrder));
  };
  store(0, _mm256_unpacklo_epi64(low01, low23));
  store(1, _mm256_unpackhi_epi64(low01, low23));
  store(2, _mm256_unpacklo_epi64(high01, high23));
  store(3, _mm256_unpackhi_epi64(high01, high23));
}

float& sumOf(QuantisedInput& group, size_t block, size_t sub) {
  return group.sums[block / 2 * 2 + sub / 4][block % 2 * 4 + sub % 4];
}

void quantiseSubBlock(const __m256i (&fixed)[4], size_t block, size_t sub, QuantisedInput& out) {
  int8_t(&limbs)[kInputLimbs][kSubLen] = out.limbs[block][sub];
  storeLimbs(fixed, limbs);
  __m256i upper = _mm256_setzero_si256();  // the sum without last limbs, in units of limb 1
  __m256i lower = _mm256_setzero_si256();  // the sum of last limbs
  for (const __m256i elements : fixed) {
    const __m256i limb = _mm256_srai_epi32(_mm256_slli_epi32(elements, 24), 24);
    upper = _mm256_add_epi32(upper, _mm256_srai_epi32(_mm256_sub_epi32(elements, limb), 8));
    lower = _mm256_add_epi32(lower, limb);
  }
  int64_t sum = int64_t{addLanes(upper)} * 256;
  if (out.keepsLastLimb[block]) {
    sum += addLanes(lower);
  } else {
    _mm256_store_si256(reinterpret_cast<__m256i*>(limbs[0]), _mm256_setzero_si256());
  }
  sumOf(out, block, sub) = static_cast<float>(sum) * 0x1p-8f * out.scales[block];
}

// False when an element is too large, infinite or NaN.
bool quantiseSuperBlock(const float* x, size_t block, QuantisedInput& out) {
  float largest;
  if (!largestMagnitude(x, largest)) {
    return false;
  }
  const int shift = fixedShift(largest);
  const __m256d power = _mm256_set1_pd(powerOfTwo(shift));
  __m256i fixed[kSubBlocks][4];
  __m256i magnitudes = _mm256_setzero_si256();
  for (size_t i = 0; i < kChunk; i += kLanes) {
    const __m256i elements = toFixed(x + i, power);
    fixed[i / kSubLen][i % kSubLen / kLanes] = elements;
    magnitudes = _mm256_add_epi32(magnitudes, _mm256_srli_epi32(_mm256_abs_epi32(elements), 8));
  }
  out.scales[block] = static_cast<float>(powerOfTwo(8 - shift));
  out.keepsLastLimb[block] = addLanes(magnitudes) < kOutlierSum;
  for (size_t sub = 0; sub < kSubBlocks; ++sub) {
    quantiseSubBlock(fixed[sub], block, sub, out);
  }
  return true;
}

void clearSuperBlock(size_t block, QuantisedInput& out) {
  std::memset(out.limbs[block], 0, sizeof out.limbs[block]);
  out.scales[block] = 0.0f;
  out.keepsLastLimb[block] = false;
  for (size_t sub = 0; sub < kSubBlocks; ++sub) {
    sumOf(out, block, sub) = 0.0f;
  }
}

}  // namespace

void quantisedRowsQ4K(const void* weights, const QuantisedInput* x, float* out, size_t rows,
                      size_t cols) {
  quantisedRows<Q4K>(weights, x, out, rows, cols);
}

void quantisedRowsQ5K(const void* weights, const QuantisedInput* x, float* out, size_t rows,
                      size_t cols) {
  quantisedRows<Q5K>(weights, x, out, rows, cols);
}

bool quantiseInput(const float* x, size_t cols, QuantisedInput* groups) {
  const size_t blocks = cols / kChunk;
  for (size_t b = 0; b < blocks; ++b) {
    if (!quantiseSuperBlock(x + b * kChunk, b % kGroupSuperBlocks, groups[b / kGroupSuperBlocks])) {
      return false;
    }
  }
  for (size_t b = blocks; b % kGroupSuperBlocks != 0; ++b) {
    clearSuperBlock(b % kGroupSuperBlocks, groups[b / kGroupSuperBlocks]);
  }
  return true;
}

}  // namespace qwen35::avx2
