// The reference kernels: the contracts of kernel_table.h as plain loops.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "quant/blocks.h"
#include "qwen35/simd/tables.h"

namespace qwen35 {

namespace {

constexpr size_t kSubLen = 32;  // elements of a sub-block of the K formats
constexpr size_t kSubBlocks = kChunk / kSubLen;

float foldLanes(const float* sums) {
  float total[kLanes];
  std::copy_n(sums, kLanes, total);
  for (size_t half = kLanes / 2; half > 0; half /= 2) {
    for (size_t lane = 0; lane < half; ++lane) {
      total[lane] += total[lane + half];
    }
  }
  return total[0];
}

// A dot product in progress.
class DotProduct {
 public:
  // Takes the next n elements; n is a multiple of kLanes.
  void add(const float* w, const float* x, size_t n) {
    for (size_t i = 0; i < n; i += kLanes) {
      for (size_t lane = 0; lane < kLanes; ++lane) {
        chain[lane] = std::fma(w[i + lane], x[i + lane], chain[lane]);
      }
      taken += kLanes;
      if (taken % kChunk == 0) {
        addTo(part, chain);
      }
      if (taken % kSpan == 0) {
        addTo(total, part);
      }
    }
  }

  float finish() {
    addTo(part, chain);
    addTo(total, part);
    return foldLanes(total);
  }

 private:
  static void addTo(float (&sum)[kLanes], float (&finished)[kLanes]) {
    for (size_t lane = 0; lane < kLanes; ++lane) {
      sum[lane] += finished[lane];
      finished[lane] = 0.0f;
    }
  }

  float chain[kLanes] = {};
  float part[kLanes] = {};
  float total[kLanes] = {};
  size_t taken = 0;
};

// Element i of a row of floats, or of the upper halves of floats, at any address.
float loadF32(const uint8_t* row, size_t i) {
  float value;
  std::memcpy(&value, row + i * sizeof value, sizeof value);
  return value;
}

float loadBf16(const uint8_t* row, size_t i) {
  uint16_t half;
  std::memcpy(&half, row + i * sizeof half, sizeof half);
  return std::bit_cast<float>(static_cast<uint32_t>(half) << 16);
}

template <float (*load)(const uint8_t*, size_t)>
float loadedDot(const uint8_t* row, const float* x, size_t n) {
  if (n % kLanes == 0) {
    DotProduct sum;
    for (size_t i = 0; i < n; i += kLanes) {
      float w[kLanes];
      for (size_t lane = 0; lane < kLanes; ++lane) {
        w[lane] = load(row, i + lane);
      }
      sum.add(w, x + i, kLanes);
    }
    return sum.finish();
  }
  const size_t plain = n - n % 16;
  float sum = 0.0f;
  for (size_t i = 0; i < plain; ++i) {
    sum += load(row, i) * x[i];
  }
  for (size_t i = plain; i < n; ++i) {
    sum = std::fma(load(row, i), x[i], sum);
  }
  return sum;
}

float dot(const float* a, const float* b, size_t n) {
  return loadedDot<loadF32>(reinterpret_cast<const uint8_t*>(a), b, n);
}

template <float (*load)(const uint8_t*, size_t), size_t elementBytes>
void loadedRows(const void* weights, const float* x, float* out, size_t rows, size_t cols) {
  const auto* row = static_cast<const uint8_t*>(weights);
  for (size_t r = 0; r < rows; ++r, row += cols * elementBytes) {
    out[r] = loadedDot<load>(row, x, cols);
  }
}

template <void (*decode)(const void*, float*, size_t), size_t blockLen, size_t blockBytes>
void dequantisedRows(const void* weights, const float* x, float* out, size_t rows, size_t cols) {
  const auto* block = static_cast<const uint8_t*>(weights);
  for (size_t r = 0; r < rows; ++r) {
    DotProduct sum;
    for (size_t i = 0; i < cols; i += blockLen, block += blockBytes) {
      float w[blockLen];
      decode(block, w, blockLen);
      sum.add(w, x + i, blockLen);
    }
    out[r] = sum.finish();
  }
}

void decodeBf16(const void* src, float* dst, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    dst[i] = loadBf16(static_cast<const uint8_t*>(src), i);
  }
}

void addChunkProducts(const float* rows, const float* inputs, float* parts, size_t nRows,
                      size_t nInputs, size_t len) {
  for (size_t r = 0; r < nRows; ++r) {
    for (size_t p = 0; p < nInputs; ++p, parts += kLanes) {
      float chain[kLanes] = {};
      for (size_t i = 0; i < len; ++i) {
        chain[i % kLanes] =
            std::fma(rows[r * kChunk + i], inputs[p * kChunk + i], chain[i % kLanes]);
      }
      for (size_t lane = 0; lane < kLanes; ++lane) {
        parts[lane] += chain[lane];
      }
    }
  }
}

void foldSums(const float* sums, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = foldLanes(sums + i * kLanes);
  }
}

// Largest k <= kMaxFixedShift for which no element times 2^k passes kLargestFixed; 8 for zeros.
int fixedShift(float largest) {
  if (largest == 0.0f) {
    return 8;
  }
  int exponent = 0;
  std::frexp(largest, &exponent);
  int shift = 31 - exponent;
  if (std::ldexp(static_cast<double>(largest), shift) > kLargestFixed) {
    --shift;
  }
  return std::min(shift, kMaxFixedShift);
}

// Limb p of element i of a sub-block.
template <typename Input>
auto& limbOf(Input& x, size_t block, size_t sub, size_t p, size_t i) {
  return x.limbs[block][sub / 4 * 2 + sub % 2][p][sub % 4 / 2][i];
}

// Limbs and sum of a sub-block given in fixed point.
void quantiseSubBlock(const int32_t* fixed, bool keepsLastLimb, size_t block, size_t sub,
                      QuantisedInput& out) {
  int64_t sum = 0;
  for (size_t i = 0; i < kSubLen; ++i) {
    int64_t rest = fixed[i];
    for (size_t p = 0; p < kInputLimbs; ++p) {
      const auto limb = static_cast<int8_t>(rest & 0xFF);
      rest = (rest - limb) / 256;
      const bool kept = p > 0 || keepsLastLimb;
      limbOf(out, block, sub, p, i) = kept ? limb : int8_t{0};
      sum += kept ? int64_t{limb} << (8 * p) : 0;
    }
  }
  out.sums[block][sub] = static_cast<float>(sum) * 0x1p-8f * out.scales[block];
}

// False when an element is too large, infinite or NaN.
bool quantiseSuperBlock(const float* x, size_t block, QuantisedInput& out) {
  float largest = 0.0f;
  for (size_t i = 0; i < kChunk; ++i) {
    const float magnitude = std::fabs(x[i]);
    if (!(magnitude < kInputLimit)) {
      return false;
    }
    largest = std::max(largest, magnitude);
  }
  const int shift = fixedShift(largest);
  int32_t fixed[kChunk];
  int32_t magnitudes = 0;
  for (size_t i = 0; i < kChunk; ++i) {
    const double scaled = std::ldexp(static_cast<double>(x[i]), shift);
    fixed[i] = static_cast<int32_t>(std::nearbyint(scaled));
    magnitudes += std::abs(fixed[i]) / 256;
  }
  out.scales[block] = std::ldexp(1.0f, 8 - shift);
  out.keepsLastLimb[block] = magnitudes < kOutlierSum;
  for (size_t sub = 0; sub < kSubBlocks; ++sub) {
    quantiseSubBlock(fixed + sub * kSubLen, out.keepsLastLimb[block], block, sub, out);
  }
  return true;
}

bool quantiseInput(const float* x, size_t cols, QuantisedInput* groups) {
  std::fill_n(groups, quantisedGroups(cols), QuantisedInput{});
  for (size_t b = 0; b < cols / kChunk; ++b) {
    if (!quantiseSuperBlock(x + b * kChunk, b % kGroupSuperBlocks, groups[b / kGroupSuperBlocks])) {
      return false;
    }
  }
  return true;
}

// The codes of a super-block, sub-block after sub-block, from its bytes behind the scales.
void codesQ4K(const uint8_t* bytes, uint8_t* codes) {
  for (size_t i = 0; i < kChunk; ++i) {
    const size_t sub = i / kSubLen;
    codes[i] = (bytes[sub / 2 * kSubLen + i % kSubLen] >> (sub % 2 * 4)) & 15;
  }
}

void codesQ5K(const uint8_t* bytes, uint8_t* codes) {
  codesQ4K(bytes + kSubLen, codes);
  for (size_t i = 0; i < kChunk; ++i) {
    codes[i] |= ((bytes[i % kSubLen] >> (i / kSubLen)) & 1) << 4;
  }
}

// A quantised dot product in progress.
class QuantisedDotProduct {
 public:
  // Super-block b of the row: its bytes, its codes and the input group that holds it.
  void add(size_t b, const uint8_t* super, const uint8_t* codes, const QuantisedInput& x) {
    const size_t block = b % kGroupSuperBlocks;
    const float superScale = loadF16(super);
    const float superMinimum = loadF16(super + 2);
    int32_t sums[kInputLimbs][kLanes] = {};
    for (size_t sub = 0; sub < kSubBlocks; ++sub) {
      uint8_t scale;
      uint8_t minimum;
      kel::quant::getScaleMinK4(static_cast<int>(sub), super + 4, scale, minimum);
      for (size_t p = 0; p < kInputLimbs; ++p) {
        for (size_t i = 0; i < kSubLen; ++i) {
          sums[p][i / 4] += scale * codes[sub * kSubLen + i] * limbOf(x, block, sub, p, i);
        }
      }
      low[sub] = std::fma(superMinimum * static_cast<float>(minimum), x.sums[block][sub], low[sub]);
    }
    const float factor = superScale * x.scales[block];
    for (size_t lane = 0; lane < kLanes; ++lane) {
      const auto limb = [&](size_t p) { return static_cast<float>(sums[p][lane]); };
      const float lower = std::fma(limb(2), 256.0f, std::fma(limb(0), 0x1p-8f, limb(1)));
      const float value = std::fma(limb(3), 65536.0f, lower);
      chain[lane] = std::fma(value, factor, chain[lane]);
    }
    if ((b + 1) % (kSpan / kChunk) == 0) {
      finishSpan();
    }
  }

  float finish() {
    finishSpan();
    return foldLanes(total);
  }

 private:
  void finishSpan() {
    for (size_t lane = 0; lane < kLanes; ++lane) {
      total[lane] += chain[lane] - low[lane];
      chain[lane] = 0.0f;
      low[lane] = 0.0f;
    }
  }

  static float loadF16(const uint8_t* at) {
    uint16_t half;
    std::memcpy(&half, at, sizeof half);
    return kel::quant::f16ToF32(half);
  }

  float chain[kLanes] = {};
  float low[kLanes] = {};
  float total[kLanes] = {};
};

template <void (*unpack)(const uint8_t*, uint8_t*), size_t blockBytes>
void quantisedRows(const void* weights, const QuantisedInput* x, float* out, size_t rows,
                   size_t cols) {
  constexpr size_t kHeaderBytes = 16;
  const auto* super = static_cast<const uint8_t*>(weights);
  for (size_t r = 0; r < rows; ++r) {
    QuantisedDotProduct sum;
    for (size_t b = 0; b < cols / kChunk; ++b, super += blockBytes) {
      uint8_t codes[kChunk];
      unpack(super + kHeaderBytes, codes);
      sum.add(b, super, codes, x[b / kGroupSuperBlocks]);
    }
    out[r] = sum.finish();
  }
}

void addWeightedRows(const float* weights, float inverseSum, const float* values, size_t stride,
                     float* acc, size_t rows, size_t n) {
  for (size_t p = 0; p < rows; ++p, values += stride) {
    const float weight = weights[p] * inverseSum;
    for (size_t d = 0; d < n; ++d) {
      acc[d] += weight * values[d];
    }
  }
}

void deltaStep(float* state, const float* q, const float* k, float* v, size_t keyDim,
               size_t valueDim, float decay, float beta, float scale) {
  for (size_t j = 0; j < valueDim; ++j) {
    float kv = 0.0f;
    for (size_t i = 0; i < keyDim; ++i) {
      state[i * valueDim + j] *= decay;
      kv = std::fma(k[i], state[i * valueDim + j], kv);
    }
    const float u = (v[j] - kv) * beta;
    float o = 0.0f;
    for (size_t i = 0; i < keyDim; ++i) {
      state[i * valueDim + j] = std::fma(k[i], u, state[i * valueDim + j]);
      o = std::fma(state[i * valueDim + j], q[i], o);
    }
    v[j] = scale * o;
  }
}

void convolve(const float* taps, size_t stride, size_t nTaps, float* history, const float* in,
              float* out, size_t channels) {
  for (size_t c = 0; c < channels; ++c) {
    float* past = history + c * (nTaps - 1);
    float sum = 0.0f;
    for (size_t i = 0; i + 1 < nTaps; ++i) {
      sum = std::fma(taps[c * stride + i], past[i], sum);
    }
    out[c] = std::fma(taps[c * stride + nTaps - 1], in[c], sum);
    if (nTaps > 1) {
      std::copy(past + 1, past + nTaps - 1, past);
      past[nTaps - 2] = in[c];
    }
  }
}

float exponential(float x) {
  constexpr double kRounder = 0x1.8p52;
  constexpr double kReciprocalFactorials[] = {
      1.0, 1.0, 1.0 / 2, 1.0 / 6, 1.0 / 24, 1.0 / 120, 1.0 / 720, 1.0 / 5040, 1.0 / 40320};
  // Written so that a NaN passes.
  x = x < -110.0f ? -110.0f : x;
  x = x > 100.0f ? 100.0f : x;
  const double d = x;
  const double t = std::fma(d, 0x1.71547652b82fep0, kRounder);
  const double k = t - kRounder;
  const double r = std::fma(k, -0x1.62e42fefa39efp-1, d);
  double p = kReciprocalFactorials[8];
  for (size_t n = 8; n-- > 0;) {
    p = std::fma(p, r, kReciprocalFactorials[n]);
  }
  // t ends in the integer k, which goes to the exponent. The low bits of a NaN that was a float are
  // zero.
  const uint64_t exponent = std::bit_cast<uint64_t>(t) << 52;
  return static_cast<float>(std::bit_cast<double>(std::bit_cast<uint64_t>(p) + exponent));
}

void exponentials(const float* x, float shift, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = exponential(x[i] - shift);
  }
}

void sigmoidGate(const float* x, const float* gates, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = x[i] / (1.0f + exponential(-gates[i]));
  }
}

void siluGate(const float* x, const float* gates, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = x[i] * (gates[i] / (1.0f + exponential(-gates[i])));
  }
}

}  // namespace

const KernelTable& scalarKernels() {
  using namespace kel::quant;
  static constexpr KernelTable kTable = {
      .name = "scalar",
      .inputsSideBySide = 1,
      .dot = dot,
      .rowsF32 = loadedRows<loadF32, sizeof(float)>,
      .rowsBf16 = loadedRows<loadBf16, sizeof(uint16_t)>,
      .rowsQ80 = dequantisedRows<dequantQ80, kBlockLen, kQ80Bytes>,
      .rowsQ4K = quantisedRows<codesQ4K, kQ4KBytes>,
      .rowsQ5K = quantisedRows<codesQ5K, kQ5KBytes>,
      .severalQ4K = nullptr,
      .severalQ5K = nullptr,
      .splitInput = nullptr,
      .quantiseInput = quantiseInput,
      .decodeBf16 = decodeBf16,
      .decodeQ80 = dequantQ80,
      .decodeQ4K = dequantQ4K,
      .decodeQ5K = dequantQ5K,
      .addChunkProducts = addChunkProducts,
      .foldSums = foldSums,
      .addWeightedRows = addWeightedRows,
      .deltaStep = deltaStep,
      .convolve = convolve,
      .exponentials = exponentials,
      .sigmoidGate = sigmoidGate,
      .siluGate = siluGate,
  };
  return kTable;
}

}  // namespace qwen35
