// How a super-block of Q4_K or Q5_K comes to its scales, minimums and codes:
//
// 1. Per sub-block, a scale and a minimum in plain floats. For every candidate of the number of
//    steps that the range is cut into, elements are rounded to codes; the scale and minimum of
//    least squared error for these codes solve a linear system of two equations. The better half of
//    the candidates is rounded and solved once more, and the best of all is kept.
// 2. d and dmin from the largest of them, as half precision stores them.
// 3. Per sub-block, the four pairs of 6-bit scale and minimum around the wanted one: codes are
//    rounded with both as stored, and the least squared error wins.
// 4. The plain encoder's bytes, where their error is smaller after all.
//
// Four candidates are tried at once, each in a lane of its own whose sums run over the elements in
// order: the bits do not depend on how a compiler maps lanes to a processor's vectors. Codes are
// rounded with halves to even.
#include "quant/least_squares_k.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "quant/block_fields.h"
#include "quant/block_rows.h"
#include "quant/k_layout.h"

namespace kel::quant {

namespace {

constexpr auto kCount = static_cast<float>(kSubBlockLen);
// Candidates cut a range into levels + 1, levels, levels - 1, ... steps: elements at the ends may
// be worth less than the rest, and a row that came from a coarser format has a whole number of
// steps.
constexpr float kMostSteps = 1;
// The formats cannot tell elements apart that are closer together. Divisors are at least this
// large.
constexpr float kLeastRange = 0x1p-40F;
// Above all that they can store, and far below what squares could overflow.
constexpr float kMostMagnitude = 0x1p28F;
constexpr float kMostHalf = 65504;

// Four floats, added, multiplied and compared lane by lane.
using Four = float __attribute__((vector_size(16)));
constexpr int kLanes = 4;

Four all(float v) {
  return Four{v, v, v, v};
}

Four larger(Four a, Four b) {
  return a > b ? a : b;
}

Four smaller(Four a, Four b) {
  return a < b ? a : b;
}

// Adding it to a small number leaves no bits for a fraction.
constexpr float kNoFraction = 0x1.8p23F;

// v to the nearest whole number in 0..levels; NaN gives 0.
Four roundedCode(Four v, Four levels) {
  return (smaller(larger(v, Four{}), levels) + kNoFraction) - kNoFraction;
}

// A sub-block as distances from its base, the smallest element or 0: sums of these keep more
// digits.
struct SubBlock {
  float distance[kSubBlockLen];
  float base;
  float range;
  float sum;  // of the distances
};

Four load(const float* x) {
  Four v;
  std::memcpy(&v, x, sizeof(v));
  return v;
}

void store(Four v, float* x) {
  std::memcpy(x, &v, sizeof(v));
}

SubBlock subBlockOf(const float* x) {
  Four least = {};
  for (size_t l = 0; l < kSubBlockLen; l += kLanes) {
    least = smaller(load(x + l), least);
  }
  SubBlock sub;
  sub.base = std::min(std::min(least[0], least[1]), std::min(least[2], least[3]));
  Four most = {};
  Four sums = {};
  for (size_t l = 0; l < kSubBlockLen; l += kLanes) {
    const Four distance = load(x + l) - sub.base;
    store(distance, sub.distance + l);
    most = larger(distance, most);
    sums += distance;
  }
  sub.range = std::max(std::max(most[0], most[1]), std::max(most[2], most[3]));
  sub.sum = (sums[0] + sums[2]) + (sums[1] + sums[3]);
  return sub;
}

// distance = scale * code + offset, in four variants. error is the squared one less the sum of the
// squared distances, which all variants share.
struct Fits {
  Four scale;
  Four offset;
  Four error;
};

// What an error depends on.
struct CodeSums {
  Four codes;
  Four squares;
  Four products;  // with the distances
};

// codeOf: the four codes of four equal distances.
template <typename CodeOf>
CodeSums sumCodes(const SubBlock& sub, CodeOf codeOf) {
  CodeSums sums = {};
  for (const float element : sub.distance) {
    const Four distance = all(element);
    const Four code = codeOf(distance);
    sums.codes += code;
    sums.squares += code * code;
    sums.products += code * distance;
  }
  return sums;
}

CodeSums roundAndSum(const SubBlock& sub, Four inverse, Four offset, float levels) {
  const Four most = all(levels);
  return sumCodes(sub,
                  [=](Four distance) { return roundedCode((distance - offset) * inverse, most); });
}

Four errorOf(const SubBlock& sub, const CodeSums& sums, Four scale, Four offset) {
  return scale * (scale * sums.squares - 2 * sums.products) +
         offset * (2 * (scale * sums.codes - sub.sum) + kCount * offset);
}

// The same for a range that is cut into steps. No distance is negative.
CodeSums cutAndSum(const SubBlock& sub, Four steps, float levels) {
  const Four inverse = steps / std::max(sub.range, kLeastRange);
  const Four most = all(levels);
  return sumCodes(sub, [=](Four distance) {
    return (smaller(distance * inverse, most) + kNoFraction) - kNoFraction;
  });
}

// Scale and offset of least squared error for codes of these sums. An offset is at most -base,
// since minimums are not negative.
Fits solve(const SubBlock& sub, const CodeSums& sums) {
  // Both divisors are whole numbers, and 0 only where all codes are equal.
  const Four determinant = kCount * sums.squares - sums.codes * sums.codes;
  const Four freeScale =
      (kCount * sums.products - sub.sum * sums.codes) / larger(determinant, all(1));
  const Four freeOffset = (sub.sum - freeScale * sums.codes) / kCount;
  const Four mostOffset = all(-sub.base);
  const Four boundScale = (sums.products - mostOffset * sums.codes) / larger(sums.squares, all(1));
  Fits fits;
  fits.scale = larger(freeOffset <= mostOffset ? freeScale : boundScale, Four{});
  fits.offset = smaller(freeOffset, mostOffset);
  fits.error = errorOf(sub, sums, fits.scale, fits.offset);
  return fits;
}

Fits betterOf(const Fits& a, const Fits& b) {
  const auto isBetter = b.error < a.error;
  return {isBetter ? b.scale : a.scale, isBetter ? b.offset : a.offset,
          isBetter ? b.error : a.error};
}

// value = scale * code - min
struct Fit {
  float scale = 0;
  float min = 0;
};

Fit searchFit(const SubBlock& sub, int levels) {
  const auto most = static_cast<float>(levels);
  const Four steps = (most + kMostSteps) - Four{0, 1, 2, 3};
  const Fits cut = betterOf(solve(sub, cutAndSum(sub, steps, most)),
                            solve(sub, cutAndSum(sub, steps - kLanes, most)));
  const Four inverse = 1 / larger(cut.scale, all(kLeastRange));
  const Fits fits = betterOf(cut, solve(sub, roundAndSum(sub, inverse, cut.offset, most)));
  int best = 0;
  for (int k = 1; k < kLanes; ++k) {
    best = fits.error[k] < fits.error[best] ? k : best;
  }
  return {fits.scale[best], std::max(0.0F, -(sub.base + fits.offset[best]))};
}

// The lower of the two neighbouring 6-bit numbers of value / unit.
int lowerCode(float value, float unit) {
  return unit > 0 ? truncateClamped(value / unit, 0, kMaxScaleCode - 1) : 0;
}

struct SuperBlock {
  uint8_t d[2];
  uint8_t dmin[2];
  int scales[kSubBlocks];
  int mins[kSubBlocks];
  uint8_t codes[kSuperBlockLen];
  float error;
};

// Codes for a scale and a minimum as stored. Returns the squared error.
float roundCodes(const float* x, const Fit& stored, float levels, uint8_t* codes) {
  const float inverse = stored.scale > 0 ? 1 / stored.scale : 0;
  const Four most = all(levels);
  Four errors = {};
  float rounded[kSubBlockLen];
  for (size_t l = 0; l < kSubBlockLen; l += kLanes) {
    const Four values = load(x + l);
    const Four code = roundedCode((values + stored.min) * inverse, most);
    const Four miss = (code * stored.scale - stored.min) - values;
    errors += miss * miss;
    store(code, rounded + l);
  }
  for (size_t l = 0; l < kSubBlockLen; ++l) {
    codes[l] = static_cast<uint8_t>(static_cast<int>(rounded[l]));
  }
  return (errors[0] + errors[2]) + (errors[1] + errors[3]);
}

// Step 3 for sub-block j.
void encodeSubBlock(const float* x, const SubBlock& sub, const Fit& fit, float d, float dmin,
                    float levels, size_t j, SuperBlock& out) {
  const int lowScale = lowerCode(fit.scale, d);
  const int lowMin = lowerCode(fit.min, dmin);
  const Four scales = static_cast<float>(lowScale) + Four{0, 0, 1, 1};
  const Four mins = static_cast<float>(lowMin) + Four{0, 1, 0, 1};
  const Four scale = scales * d;
  const Four offset = -(mins * dmin) - sub.base;
  const CodeSums sums = roundAndSum(sub, scale > Four{} ? 1 / scale : Four{}, offset, levels);
  const Four error = errorOf(sub, sums, scale, offset);
  int best = 0;
  for (int k = 1; k < kLanes; ++k) {
    best = error[k] < error[best] ? k : best;
  }
  out.scales[j] = lowScale + best / 2;
  out.mins[j] = lowMin + best % 2;
  const Fit stored = {static_cast<float>(out.scales[j]) * d,
                      static_cast<float>(out.mins[j]) * dmin};
  out.error += roundCodes(x, stored, levels, out.codes + kSubBlockLen * j);
}

void searchSuperBlock(const float* x, int levels, SuperBlock& out) {
  SubBlock subs[kSubBlocks];
  Fit fits[kSubBlocks];
  float d = 0;
  float dmin = 0;
  for (size_t j = 0; j < kSubBlocks; ++j) {
    subs[j] = subBlockOf(x + kSubBlockLen * j);
    fits[j] = searchFit(subs[j], levels);
    d = std::max(d, fits[j].scale / kMaxScaleCode);
    dmin = std::max(dmin, fits[j].min / kMaxScaleCode);
  }
  const float storedD = storeF16(out.d, std::min(d, kMostHalf));
  const float storedDmin = storeF16(out.dmin, std::min(dmin, kMostHalf));
  out.error = 0;
  for (size_t j = 0; j < kSubBlocks; ++j) {
    encodeSubBlock(x + kSubBlockLen * j, subs[j], fits[j], storedD, storedDmin,
                   static_cast<float>(levels), j, out);
  }
}

// NaN or infinite if a decoded value is.
float squaredError(const float* x, const uint8_t* block,
                   void (*decode)(const void*, float*, size_t)) {
  float decoded[kSuperBlockLen];
  decode(block, decoded, kSuperBlockLen);
  float error = 0;
  for (size_t at = 0; at < kSuperBlockLen; at += kSubBlockLen) {
    Four errors = {};
    for (size_t l = at; l < at + kSubBlockLen; l += kLanes) {
      const Four miss = load(decoded + l) - load(x + l);
      errors += miss * miss;
    }
    error += (errors[0] + errors[2]) + (errors[1] + errors[3]);
  }
  return error;
}

// One of the two formats.
struct Format {
  int levels;
  void (*packCodes)(const uint8_t* codes, uint8_t* block);
  void (*decode)(const void* src, float* dst, size_t n);
  void (*encodePlainly)(const float* src, void* dst, size_t n);
};

constexpr Format kQ4K = {15, packCodesQ4K, dequantQ4K, quantQ4K};
constexpr Format kQ5K = {31, packCodesQ5K, dequantQ5K, quantQ5K};

void encodeBlock(const float* x, const Format& format, uint8_t* block) {
  format.encodePlainly(x, block, kSuperBlockLen);
  float clamped[kSuperBlockLen];
  Four zeros = {};
  for (size_t l = 0; l < kSuperBlockLen; l += kLanes) {
    const Four values = load(x + l);
    zeros += values * 0.0F;  // NaN for what is not finite
    store(smaller(larger(values, all(-kMostMagnitude)), all(kMostMagnitude)), clamped + l);
  }
  if (!((zeros[0] + zeros[1]) + (zeros[2] + zeros[3]) == 0)) {
    return;
  }
  SuperBlock found;
  searchSuperBlock(clamped, format.levels, found);
  if (squaredError(clamped, block, format.decode) <= found.error) {
    return;
  }
  std::memcpy(block, found.d, sizeof(found.d));
  std::memcpy(block + sizeof(found.d), found.dmin, sizeof(found.dmin));
  packScaleCodes(found.scales, found.mins, block + kScalesAt);
  format.packCodes(found.codes, block);
}

}  // namespace

void leastSquaresQ4K(const float* src, void* dst, size_t n) {
  encodeBlocks<kSuperBlockLen, kQ4KBytes>(
      src, dst, n, [](const float* x, uint8_t* block) { encodeBlock(x, kQ4K, block); });
}

void leastSquaresQ5K(const float* src, void* dst, size_t n) {
  encodeBlocks<kSuperBlockLen, kQ5KBytes>(
      src, dst, n, [](const float* x, uint8_t* block) { encodeBlock(x, kQ5K, block); });
}

}  // namespace kel::quant
