// The reference kernels: the contracts of kernel_table.h as plain loops.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "quant/blocks.h"
#include "qwen35/simd/tables.h"

namespace qwen35 {

namespace {

// A row sum in progress.
class RowSum {
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
    for (size_t half = kLanes / 2; half > 0; half /= 2) {
      for (size_t lane = 0; lane < half; ++lane) {
        total[lane] += total[lane + half];
      }
    }
    return total[0];
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
    RowSum sum;
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
void decodedRows(const void* weights, const float* x, float* out, size_t rows, size_t cols) {
  const auto* block = static_cast<const uint8_t*>(weights);
  for (size_t r = 0; r < rows; ++r) {
    RowSum sum;
    for (size_t i = 0; i < cols; i += blockLen, block += blockBytes) {
      float w[blockLen];
      decode(block, w, blockLen);
      sum.add(w, x + i, blockLen);
    }
    out[r] = sum.finish();
  }
}

void addWeightedRows(const float* e, float r, const float* values, float* acc, size_t rows,
                     size_t n) {
  for (size_t p = 0; p < rows; ++p, values += n) {
    const float weight = e[p] * r;
    for (size_t d = 0; d < n; ++d) {
      acc[d] += weight * values[d];
    }
  }
}

void deltaStep(float* state, const float* q, const float* k, float* v, size_t dim, float decay,
               float beta, float scale) {
  for (size_t j = 0; j < dim; ++j) {
    float kv = 0.0f;
    for (size_t i = 0; i < dim; ++i) {
      state[i * dim + j] *= decay;
      kv = std::fma(k[i], state[i * dim + j], kv);
    }
    const float u = (v[j] - kv) * beta;
    float o = 0.0f;
    for (size_t i = 0; i < dim; ++i) {
      state[i * dim + j] = std::fma(k[i], u, state[i * dim + j]);
      o = std::fma(state[i * dim + j], q[i], o);
    }
    v[j] = scale * o;
  }
}

}  // namespace

const KernelTable& scalarKernels() {
  using namespace kel::quant;
  static constexpr KernelTable kTable = {
      .name = "scalar",
      .dot = dot,
      .rowsF32 = loadedRows<loadF32, sizeof(float)>,
      .rowsBf16 = loadedRows<loadBf16, sizeof(uint16_t)>,
      .rowsQ80 = decodedRows<dequantQ80, kBlockLen, kQ80Bytes>,
      .rowsQ4K = decodedRows<dequantQ4K, kSuperBlockLen, kQ4KBytes>,
      .rowsQ5K = decodedRows<dequantQ5K, kSuperBlockLen, kQ5KBytes>,
      .addWeightedRows = addWeightedRows,
      .deltaStep = deltaStep,
  };
  return kTable;
}

}  // namespace qwen35
