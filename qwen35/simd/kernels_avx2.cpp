// The kernels for AVX2 with FMA: the contracts of kernel_table.h, eight lanes to a register.
//
// Only the avx2 files are compiled for those instructions. Everything but the table is in an
// anonymous namespace and nothing comes from inline code of other headers: the linker could pick
// such a copy for the whole program, and an older processor would meet it.
#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "qwen35/simd/avx2_blocks.h"
#include "qwen35/simd/avx2_common.h"
#include "qwen35/simd/avx2_quantised.h"
#include "qwen35/simd/exponential.h"
#include "qwen35/simd/tables.h"

namespace qwen35 {

namespace {

static_assert(kLanes == 8, "one register holds the lanes of a dot product");

// Rows multiplied side by side: each has one chain of dependent additions, and four of them hide
// the latency of the multiply-add.
constexpr size_t kRowsAtOnce = 4;

constexpr size_t kLineBytes = 64;

using avx2::fold;
using avx2::load32Bytes;
using avx2::loadHalf;

__m128i load8Bytes(const uint8_t* at) {
  return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
}

// A format says how one block of each of R rows is multiplied with the block's inputs and added to
// the rows' chains. The first row's block is at `first`, the others follow `stride` bytes apart.

struct F32 {
  static constexpr size_t kBlockLen = 8;
  static constexpr size_t kBlockBytes = 32;

  static float load(const uint8_t* row, size_t i) {
    float value;
    std::memcpy(&value, row + i * sizeof value, sizeof value);
    return value;
  }

  template <size_t R>
  static void addBlock(const uint8_t* first, size_t stride, const float* x, __m256 (&chain)[R]) {
    const __m256 input = _mm256_loadu_ps(x);
    for (size_t r = 0; r < R; ++r) {
      const __m256 weights = _mm256_castsi256_ps(load32Bytes(first + r * stride));
      chain[r] = _mm256_fmadd_ps(weights, input, chain[r]);
    }
  }
};

struct BF16 {
  static constexpr size_t kBlockLen = 8;
  static constexpr size_t kBlockBytes = 16;

  static float load(const uint8_t* row, size_t i) {
    uint16_t half;
    std::memcpy(&half, row + i * sizeof half, sizeof half);
    const uint32_t bits = static_cast<uint32_t>(half) << 16;
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }

  template <size_t R>
  static void addBlock(const uint8_t* first, size_t stride, const float* x, __m256 (&chain)[R]) {
    const __m256 input = _mm256_loadu_ps(x);
    for (size_t r = 0; r < R; ++r) {
      const __m128i halves = _mm_loadu_si128(reinterpret_cast<const __m128i*>(first + r * stride));
      const __m256i weights = _mm256_slli_epi32(_mm256_cvtepu16_epi32(halves), 16);
      chain[r] = _mm256_fmadd_ps(_mm256_castsi256_ps(weights), input, chain[r]);
    }
  }
};

struct Q80 {
  static constexpr size_t kBlockLen = 32;
  static constexpr size_t kBlockBytes = 34;

  template <size_t R>
  static void addBlock(const uint8_t* first, size_t stride, const float* x, __m256 (&chain)[R]) {
    for (size_t r = 0; r < R; ++r) {
      const uint8_t* block = first + r * stride;
      const __m256 scale = _mm256_set1_ps(loadHalf(block));
      for (size_t i = 0; i < kBlockLen; i += kLanes) {
        const __m256i codes = _mm256_cvtepi8_epi32(load8Bytes(block + 2 + i));
        const __m256 weights = _mm256_mul_ps(_mm256_cvtepi32_ps(codes), scale);
        chain[r] = _mm256_fmadd_ps(weights, _mm256_loadu_ps(x + i), chain[r]);
      }
    }
  }
};

template <size_t R>
void setZero(__m256 (&sums)[R]) {
  for (size_t r = 0; r < R; ++r) {
    sums[r] = _mm256_setzero_ps();
  }
}

template <size_t R>
void addTo(__m256 (&sums)[R], const __m256 (&finished)[R]) {
  for (size_t r = 0; r < R; ++r) {
    sums[r] = _mm256_add_ps(sums[r], finished[r]);
  }
}

// Asks for the same block of the next R rows: rows are short, and the processor's own prefetching
// starts anew at each of the R streams.
template <typename Format, size_t R>
void prefetchNextRows(const uint8_t* first, size_t stride) {
  for (size_t r = 0; r < R; ++r) {
    const uintptr_t block = reinterpret_cast<uintptr_t>(first) + (R + r) * stride;
    for (size_t line = 0; line < Format::kBlockBytes; line += kLineBytes) {
      _mm_prefetch(reinterpret_cast<const char*>(block + line), _MM_HINT_T0);
    }
  }
}

size_t endOfGroup(size_t begin, size_t groupLen, size_t end) {
  return end - begin > groupLen ? begin + groupLen : end;
}

// The dot products of R rows, cols a multiple of the block length.
template <typename Format, size_t R>
void dotProducts(const uint8_t* first, size_t stride, const float* x, float* out, size_t cols) {
  __m256 total[R];
  setZero(total);
  for (size_t i = 0; i < cols;) {
    const size_t spanEnd = endOfGroup(i, kSpan, cols);
    __m256 part[R];
    setZero(part);
    while (i < spanEnd) {
      const size_t chunkEnd = endOfGroup(i, kChunk, spanEnd);
      __m256 chain[R];
      setZero(chain);
      for (; i < chunkEnd; i += Format::kBlockLen, first += Format::kBlockBytes) {
        prefetchNextRows<Format, R>(first, stride);
        Format::template addBlock<R>(first, stride, x + i, chain);
      }
      addTo(part, chain);
    }
    addTo(total, part);
  }
  for (size_t r = 0; r < R; ++r) {
    out[r] = fold(total[r]);
  }
}

template <typename Format>
void blockRows(const void* weights, const float* x, float* out, size_t rows, size_t cols) {
  const auto* row = static_cast<const uint8_t*>(weights);
  const size_t stride = cols / Format::kBlockLen * Format::kBlockBytes;
  size_t r = 0;
  for (; rows - r >= kRowsAtOnce; r += kRowsAtOnce, row += kRowsAtOnce * stride) {
    dotProducts<Format, kRowsAtOnce>(row, stride, x, out + r, cols);
  }
  for (; r < rows; ++r, row += stride) {
    dotProducts<Format, 1>(row, stride, x, out + r, cols);
  }
}

// The running sum for lengths that are no multiple of the lanes.
template <typename Format>
float runningSum(const uint8_t* row, const float* x, size_t n) {
  const size_t plain = n - n % 16;
  float sum = 0.0f;
  for (size_t i = 0; i < plain; ++i) {
    sum += Format::load(row, i) * x[i];
  }
  for (size_t i = plain; i < n; ++i) {
    sum = __builtin_fmaf(Format::load(row, i), x[i], sum);
  }
  return sum;
}

template <typename Format>
void loadedRows(const void* weights, const float* x, float* out, size_t rows, size_t cols) {
  if (cols % kLanes == 0) {
    blockRows<Format>(weights, x, out, rows, cols);
    return;
  }
  const auto* row = static_cast<const uint8_t*>(weights);
  constexpr size_t kElementBytes = Format::kBlockBytes / Format::kBlockLen;
  for (size_t r = 0; r < rows; ++r, row += cols * kElementBytes) {
    out[r] = runningSum<Format>(row, x, cols);
  }
}

float dot(const float* a, const float* b, size_t n) {
  float sum;
  loadedRows<F32>(a, b, &sum, 1, n);
  return sum;
}

// Adds rows to kRegisters * kLanes columns of acc, which stay in registers meanwhile.
template <size_t kRegisters>
void addWeightedColumns(const float* weights, float inverseSum, const float* values, size_t stride,
                        float* acc, size_t rows) {
  __m256 sum[kRegisters];
  for (size_t c = 0; c < kRegisters; ++c) {
    sum[c] = _mm256_loadu_ps(acc + c * kLanes);
  }
  for (size_t p = 0; p < rows; ++p, values += stride) {
    const __m256 weight = _mm256_set1_ps(weights[p] * inverseSum);
    for (size_t c = 0; c < kRegisters; ++c) {
      const __m256 product = _mm256_mul_ps(weight, _mm256_loadu_ps(values + c * kLanes));
      sum[c] = _mm256_add_ps(sum[c], product);
    }
  }
  for (size_t c = 0; c < kRegisters; ++c) {
    _mm256_storeu_ps(acc + c * kLanes, sum[c]);
  }
}

void addWeightedRows(const float* weights, float inverseSum, const float* values, size_t stride,
                     float* acc, size_t rows, size_t n) {
  constexpr size_t kWide = 8;
  constexpr size_t kRowsPerTile = 16;  // their values are read once from memory, then from cache
  for (size_t p = 0; p < rows; p += kRowsPerTile) {
    const size_t count = rows - p < kRowsPerTile ? rows - p : kRowsPerTile;
    const float* tile = values + p * stride;
    size_t d = 0;
    for (; n - d >= kWide * kLanes; d += kWide * kLanes) {
      addWeightedColumns<kWide>(weights + p, inverseSum, tile + d, stride, acc + d, count);
    }
    for (; n - d >= kLanes; d += kLanes) {
      addWeightedColumns<1>(weights + p, inverseSum, tile + d, stride, acc + d, count);
    }
    for (; d < n; ++d) {
      for (size_t row = 0; row < count; ++row) {
        acc[d] += (weights[p + row] * inverseSum) * tile[row * stride + d];
      }
    }
  }
}

struct DeltaStep {
  const float* q;
  const float* k;
  size_t dim;
  float decay;
  float beta;
  float scale;
};

// kRegisters * kLanes columns of the state. The first pass only reads: the second decays each
// element again, which costs less than storing it twice. Four registers of columns stay in L1
// between the two.
template <size_t kRegisters>
void deltaColumns(const DeltaStep& step, float* columns, float* v) {
  const __m256 decay = _mm256_set1_ps(step.decay);
  __m256 kv[kRegisters];
  for (size_t c = 0; c < kRegisters; ++c) {
    kv[c] = _mm256_setzero_ps();
  }
  for (size_t i = 0; i < step.dim; ++i) {
    const __m256 key = _mm256_set1_ps(step.k[i]);
    for (size_t c = 0; c < kRegisters; ++c) {
      const __m256 state = _mm256_loadu_ps(columns + i * step.dim + c * kLanes);
      kv[c] = _mm256_fmadd_ps(key, _mm256_mul_ps(state, decay), kv[c]);
    }
  }
  __m256 u[kRegisters];
  __m256 o[kRegisters];
  for (size_t c = 0; c < kRegisters; ++c) {
    const __m256 error = _mm256_sub_ps(_mm256_loadu_ps(v + c * kLanes), kv[c]);
    u[c] = _mm256_mul_ps(error, _mm256_set1_ps(step.beta));
    o[c] = _mm256_setzero_ps();
  }
  for (size_t i = 0; i < step.dim; ++i) {
    const __m256 key = _mm256_set1_ps(step.k[i]);
    const __m256 query = _mm256_set1_ps(step.q[i]);
    for (size_t c = 0; c < kRegisters; ++c) {
      float* at = columns + i * step.dim + c * kLanes;
      const __m256 state = _mm256_fmadd_ps(key, u[c], _mm256_mul_ps(_mm256_loadu_ps(at), decay));
      _mm256_storeu_ps(at, state);
      o[c] = _mm256_fmadd_ps(state, query, o[c]);
    }
  }
  for (size_t c = 0; c < kRegisters; ++c) {
    _mm256_storeu_ps(v + c * kLanes, _mm256_mul_ps(_mm256_set1_ps(step.scale), o[c]));
  }
}

void deltaColumn(const DeltaStep& step, float* columns, float* v) {
  float kv = 0.0f;
  for (size_t i = 0; i < step.dim; ++i) {
    kv = __builtin_fmaf(step.k[i], columns[i * step.dim] * step.decay, kv);
  }
  const float u = (*v - kv) * step.beta;
  float o = 0.0f;
  for (size_t i = 0; i < step.dim; ++i) {
    columns[i * step.dim] = __builtin_fmaf(step.k[i], u, columns[i * step.dim] * step.decay);
    o = __builtin_fmaf(columns[i * step.dim], step.q[i], o);
  }
  *v = step.scale * o;
}

void deltaStep(float* state, const float* q, const float* k, float* v, size_t dim, float decay,
               float beta, float scale) {
  constexpr size_t kWide = 4;
  const DeltaStep step{q, k, dim, decay, beta, scale};
  size_t j = 0;
  for (; dim - j >= kWide * kLanes; j += kWide * kLanes) {
    deltaColumns<kWide>(step, state + j, v + j);
  }
  for (; dim - j >= kLanes; j += kLanes) {
    deltaColumns<1>(step, state + j, v + j);
  }
  for (; j < dim; ++j) {
    deltaColumn(step, state + j, v + j);
  }
}

// The layer of exponential.h.
struct Avx2Exponential {
  static constexpr size_t kFloats = 8;
  using F = __m256;
  struct D {
    __m256d low;
    __m256d high;
  };

  static F load(const float* at) { return _mm256_loadu_ps(at); }
  static void store(float* at, F x) { _mm256_storeu_ps(at, x); }
  static F all(float x) { return _mm256_set1_ps(x); }
  static F add(F a, F b) { return _mm256_add_ps(a, b); }
  static F sub(F a, F b) { return _mm256_sub_ps(a, b); }
  static F mul(F a, F b) { return _mm256_mul_ps(a, b); }
  static F div(F a, F b) { return _mm256_div_ps(a, b); }
  // Both give their second operand where one is a NaN.
  static F atLeast(F low, F x) { return _mm256_max_ps(low, x); }
  static F atMost(F high, F x) { return _mm256_min_ps(high, x); }

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

 private:
  static __m256d addShifted(__m256d p, __m256d t) {
    const __m256i shifted = _mm256_slli_epi64(_mm256_castpd_si256(t), 52);
    return _mm256_castsi256_pd(_mm256_add_epi64(_mm256_castpd_si256(p), shifted));
  }
};

}  // namespace

const KernelTable& avx2Kernels() {
  static constexpr KernelTable kTable = {
      .name = "avx2",
      .dot = dot,
      .rowsF32 = loadedRows<F32>,
      .rowsBf16 = loadedRows<BF16>,
      .rowsQ80 = blockRows<Q80>,
      .rowsQ4K = avx2::quantisedRowsQ4K,
      .rowsQ5K = avx2::quantisedRowsQ5K,
      .quantiseInput = avx2::quantiseInput,
      .decodeQ80 = avx2::decodeQ80,
      .decodeQ4K = avx2::decodeQ4K,
      .decodeQ5K = avx2::decodeQ5K,
      .addChunkProducts = avx2::addChunkProducts,
      .foldSums = avx2::foldSums,
      .addWeightedRows = addWeightedRows,
      .deltaStep = deltaStep,
      .exponentials = exponentials<Avx2Exponential>,
      .sigmoidGate = sigmoidGate<Avx2Exponential>,
      .siluGate = siluGate<Avx2Exponential>,
  };
  return kTable;
}

}  // namespace qwen35
