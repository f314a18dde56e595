// Speed of the scalar block decoders and encoders on one thread, per format.
//
// bytes_per_second counts floats (4 bytes each) for both directions; "block_bytes" is the same run
// counted in encoded bytes. One iteration is a row of 16384 normally distributed weights, seed 1.
// Median and spread: --benchmark_repetitions=5.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "quant/blocks.h"
#include "quant/least_squares_k.h"

namespace {

using kel::QuantType;
using namespace kel::quant;

constexpr size_t kRow = 16384;

std::vector<float> weights() {
  std::mt19937 random(1);
  std::normal_distribution<float> gauss(0, 0.02F);
  std::vector<float> row(kRow);
  for (float& v : row) {
    v = gauss(random);
  }
  return row;
}

void report(benchmark::State& state, size_t blockBytes) {
  const auto rows = static_cast<int64_t>(state.iterations());
  state.SetBytesProcessed(rows * static_cast<int64_t>(kRow * sizeof(float)));
  state.counters["block_bytes"] =
      benchmark::Counter(static_cast<double>(rows) * static_cast<double>(blockBytes),
                         benchmark::Counter::kIsRate, benchmark::Counter::kIs1024);
}

void encodeRow(benchmark::State& state, void (*encode)(const float*, void*, size_t),
               QuantType type) {
  const std::vector<float> row = weights();
  std::vector<uint8_t> blocks(quantizedBytes(type, kRow));
  for ([[maybe_unused]] auto step : state) {
    encode(row.data(), blocks.data(), kRow);
    benchmark::DoNotOptimize(blocks.data());
    benchmark::ClobberMemory();
  }
  report(state, blocks.size());
}

void decodeRow(benchmark::State& state, void (*encode)(const float*, void*, size_t),
               void (*decode)(const void*, float*, size_t), QuantType type) {
  std::vector<float> row = weights();
  std::vector<uint8_t> blocks(quantizedBytes(type, kRow));
  encode(row.data(), blocks.data(), kRow);
  for ([[maybe_unused]] auto step : state) {
    decode(blocks.data(), row.data(), kRow);
    benchmark::DoNotOptimize(row.data());
    benchmark::ClobberMemory();
  }
  report(state, blocks.size());
}

BENCHMARK_CAPTURE(encodeRow, Q4_0, quantQ40, QuantType::Q4_0);
BENCHMARK_CAPTURE(encodeRow, Q8_0, quantQ80, QuantType::Q8_0);
BENCHMARK_CAPTURE(encodeRow, Q4_K, quantQ4K, QuantType::Q4_K);
BENCHMARK_CAPTURE(encodeRow, Q5_K, quantQ5K, QuantType::Q5_K);
BENCHMARK_CAPTURE(encodeRow, Q6_K, quantQ6K, QuantType::Q6_K);
BENCHMARK_CAPTURE(encodeRow, Q4_K_least_squares, leastSquaresQ4K, QuantType::Q4_K);
BENCHMARK_CAPTURE(encodeRow, Q5_K_least_squares, leastSquaresQ5K, QuantType::Q5_K);
BENCHMARK_CAPTURE(decodeRow, Q4_0, quantQ40, dequantQ40, QuantType::Q4_0);
BENCHMARK_CAPTURE(decodeRow, Q8_0, quantQ80, dequantQ80, QuantType::Q8_0);
BENCHMARK_CAPTURE(decodeRow, Q4_K, quantQ4K, dequantQ4K, QuantType::Q4_K);
BENCHMARK_CAPTURE(decodeRow, Q5_K, quantQ5K, dequantQ5K, QuantType::Q5_K);
BENCHMARK_CAPTURE(decodeRow, Q6_K, quantQ6K, dequantQ6K, QuantType::Q6_K);

}  // namespace
