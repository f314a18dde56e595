// Speed of the matrix-vector products and of the other vector kernels.
//
// Every product reports GB/s, the bytes of weights that it streamed per second; read_GB/s, what a
// plain read of memory reached in the same run with as many threads; and their ratio. Matrices
// follow one another through a pool larger than the caches, as the layers of a model do.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench/decode_then_dot.h"
#include "qwen35/context.h"
#include "qwen35/products.h"
#include "qwen35/simd/dispatch.h"
#include "qwen35/weights.h"
#include "tests/qwen35/weight_rows.h"

namespace {

using kel::QuantType;
using weight_rows::randomFloats;

constexpr size_t kPoolBytes = size_t{256} << 20;

// The best of several passes of a plain read over `data` with n OpenMP threads, in bytes/s.
double readBandwidth(const std::vector<uint8_t>& data, int nThreads) {
  static std::map<int, double> measured;
  if (measured.count(nThreads) > 0) {
    return measured[nThreads];
  }
  const auto* words = reinterpret_cast<const uint64_t*>(data.data());
  const size_t n = data.size() / sizeof(uint64_t);
  double best = 0.0;
  for (int pass = 0; pass < 5; ++pass) {
    const auto start = std::chrono::steady_clock::now();
    uint64_t sum = 0;
#pragma omp parallel for num_threads(nThreads) reduction(+ : sum) schedule(static)
    for (size_t i = 0; i < n; ++i) {
      sum += words[i];
    }
    benchmark::DoNotOptimize(sum);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    best = std::max(best, static_cast<double>(data.size()) / seconds.count());
  }
  measured[nThreads] = best;
  return best;
}

// Rows of one type that fill the pool. One pool at a time is kept: the benchmarks come type by
// type.
struct Pool {
  QuantType type = QuantType::F32;
  size_t cols = 0;
  size_t rows = 0;
  std::vector<uint8_t> data;
};

const Pool& poolOf(QuantType type, size_t cols) {
  static Pool pool;
  if (pool.type == type && pool.cols == cols) {
    return pool;
  }
  const size_t stride = qwen35::rowBytes(type, cols);
  const std::vector<uint8_t> tile = weight_rows::randomRows(type, 16, cols, 1);
  pool = {type, cols, kPoolBytes / stride / 16 * 16, std::move(pool.data)};
  pool.data.resize(pool.rows * stride);
  for (size_t at = 0; at < pool.data.size(); at += tile.size()) {
    std::memcpy(pool.data.data() + at, tile.data(), tile.size());
  }
  return pool;
}

// Calls body(first row's address, rows) for one matrix of `rows` rows that starts at pool row
// `next`, in parts where it is longer than what is left; moves next on.
template <typename Body>
void overMatrix(const Pool& pool, size_t rows, size_t& next, const Body& body) {
  const size_t stride = qwen35::rowBytes(pool.type, pool.cols);
  while (rows > 0) {
    const size_t count = std::min(rows, pool.rows - next);
    body(pool.data.data() + next * stride, count);
    rows -= count;
    next = (next + count) % pool.rows;
  }
}

void report(benchmark::State& state, const Pool& pool, size_t rows, int nThreads,
            std::chrono::duration<double> elapsed) {
  const double read = readBandwidth(pool.data, nThreads);
  const double bytes = static_cast<double>(rows) *
                       static_cast<double>(qwen35::rowBytes(pool.type, pool.cols)) *
                       static_cast<double>(state.iterations());
  state.counters["GB/s"] = bytes / elapsed.count() / 1e9;
  state.counters["read_GB/s"] = read / 1e9;
  state.counters["ratio"] = bytes / elapsed.count() / read;
}

void gemv(benchmark::State& state, QuantType type, size_t rows, size_t cols, int nThreads) {
  const Pool& pool = poolOf(type, cols);
  const std::vector<float> x = randomFloats(cols, 2);
  std::vector<float> y(rows, 0.0f);
  const qwen35::Model model;
  kel::TensorView view;
  view.type = type;
  view.rank = 2;
  view.dims[0] = cols;
  const int before = omp_get_max_threads();
  omp_set_num_threads(nThreads);
  qwen35::Context context(cols, rows);
  size_t next = 0;
  const auto start = std::chrono::steady_clock::now();
  for ([[maybe_unused]] auto step : state) {
    overMatrix(pool, rows, next, [&](const uint8_t* data, size_t count) {
      view.data = data;
      view.dims[1] = count;
      // The product of a pass, by itself.
      context.team().run([&](qwen35::Team::Member& member) {
        const qwen35::Work w{context, member, model, 1, qwen35::Arithmetic::SingleToken};
        const qwen35::Matmul product[] = {{&view, y.data(), rows}};
        const qwen35::MatmulInput in = w.input(x.data(), cols, product);
        w.prepare(in);
        w.multiply(in, product);
      });
    });
  }
  const auto end = std::chrono::steady_clock::now();
  omp_set_num_threads(before);
  report(state, pool, rows, nThreads, end - start);
  state.SetLabel(qwen35::kernels().name);
}

void decodeThenDot(benchmark::State& state, size_t rows, size_t cols, int nThreads) {
  const Pool& pool = poolOf(QuantType::Q4_K, cols);
  const size_t stride = qwen35::rowBytes(QuantType::Q4_K, cols);
  const std::vector<float> x = randomFloats(cols, 2);
  std::vector<float> y(rows, 0.0f);
  size_t next = 0;
  const auto start = std::chrono::steady_clock::now();
  for ([[maybe_unused]] auto step : state) {
    overMatrix(pool, rows, next, [&](const uint8_t* data, size_t count) {
#pragma omp parallel num_threads(nThreads)
      {
        std::vector<float> scratch(cols);
        const qwen35::RowRange range =
            qwen35::threadRows(count, static_cast<size_t>(omp_get_num_threads()),
                               static_cast<size_t>(omp_get_thread_num()));
        decodeThenDotQ4K(data + range.begin * stride, x.data(), y.data() + range.begin,
                         scratch.data(), range.end - range.begin, cols);
      }
    });
    benchmark::DoNotOptimize(y.data());
  }
  report(state, pool, rows, nThreads, std::chrono::steady_clock::now() - start);
}

// One token's recurrent updates in a layer of 32 heads; GB/s of state read and written.
void deltaStep(benchmark::State& state) {
  constexpr size_t kHeads = 32;
  constexpr size_t kLayers = 24;
  constexpr size_t kDim = 128;
  std::vector<float> states(kLayers * kHeads * kDim * kDim, 0.1f);
  const std::vector<float> q = randomFloats(kDim, 3, -0.1f, 0.1f);
  const std::vector<float> k = randomFloats(kDim, 4, -0.1f, 0.1f);
  std::vector<float> v = randomFloats(kDim, 5);
  size_t layer = 0;
  for ([[maybe_unused]] auto step : state) {
    for (size_t head = 0; head < kHeads; ++head) {
      float* matrix = states.data() + (layer * kHeads + head) * kDim * kDim;
      qwen35::kernels().deltaStep(matrix, q.data(), k.data(), v.data(), kDim, kDim, 0.9f, 0.5f,
                                  0.1f);
    }
    layer = (layer + 1) % kLayers;
  }
  state.SetBytesProcessed(static_cast<int64_t>(2 * kHeads * kDim * kDim * sizeof(float)) *
                          state.iterations());
  state.SetLabel(qwen35::kernels().name);
}

// The values of 4,096 positions for one head; GB/s of cached values.
void addWeightedRows(benchmark::State& state) {
  constexpr size_t kPositions = 4096;
  constexpr size_t kDim = 256;
  constexpr size_t kCaches = 16;
  const std::vector<float> values(kCaches * kPositions * kDim, 0.5f);
  const std::vector<float> e = randomFloats(kPositions, 6, 0.0f);
  std::vector<float> acc(kDim, 0.0f);
  size_t cache = 0;
  for ([[maybe_unused]] auto step : state) {
    qwen35::kernels().addWeightedRows(e.data(), 0.5f, values.data() + cache * kPositions * kDim,
                                      kDim, acc.data(), kPositions, kDim);
    cache = (cache + 1) % kCaches;
  }
  state.SetBytesProcessed(static_cast<int64_t>(kPositions * kDim * sizeof(float)) *
                          state.iterations());
  state.SetLabel(qwen35::kernels().name);
}

// Kernels of one table with all that they read in L1 or L2, on one thread.

constexpr size_t kCachedRows = 16;
constexpr size_t kCachedCols = 2560;

void rowsInCache(benchmark::State& state, const qwen35::KernelTable& table, QuantType type) {
  const std::vector<uint8_t> weights = weight_rows::randomRows(type, kCachedRows, kCachedCols, 1);
  const std::vector<float> x = randomFloats(kCachedCols, 2);
  std::vector<float> y(kCachedRows);
  std::vector<qwen35::QuantisedInput> quantised(qwen35::quantisedGroups(kCachedCols));
  table.quantiseInput(x.data(), kCachedCols, quantised.data());
  for ([[maybe_unused]] auto step : state) {
    switch (type) {
      case QuantType::F32:
        table.rowsF32(weights.data(), x.data(), y.data(), kCachedRows, kCachedCols);
        break;
      case QuantType::BF16:
        table.rowsBf16(weights.data(), x.data(), y.data(), kCachedRows, kCachedCols);
        break;
      case QuantType::Q8_0:
        table.rowsQ80(weights.data(), x.data(), y.data(), kCachedRows, kCachedCols);
        break;
      case QuantType::Q4_K:
        table.rowsQ4K(weights.data(), quantised.data(), y.data(), kCachedRows, kCachedCols);
        break;
      default:
        table.rowsQ5K(weights.data(), quantised.data(), y.data(), kCachedRows, kCachedCols);
        break;
    }
    benchmark::DoNotOptimize(y.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(weights.size()) * state.iterations());
  state.SetItemsProcessed(static_cast<int64_t>(kCachedRows * kCachedCols) * state.iterations());
}

void severalInCache(benchmark::State& state, const qwen35::KernelTable& table, QuantType type,
                    size_t inputs) {
  const std::vector<uint8_t> weights = weight_rows::randomRows(type, kCachedRows, kCachedCols, 1);
  const size_t groups = qwen35::quantisedGroups(kCachedCols);
  std::vector<float> y(kCachedRows * inputs);
  std::vector<qwen35::QuantisedInput> quantised(inputs * groups);
  std::vector<qwen35::InputWords> words(inputs * kCachedCols / qwen35::kChunk);
  for (size_t i = 0; i < inputs; ++i) {
    const std::vector<float> x = randomFloats(kCachedCols, static_cast<uint32_t>(2 + i));
    qwen35::QuantisedInput* groupsOfInput = quantised.data() + i * groups;
    table.quantiseInput(x.data(), kCachedCols, groupsOfInput);
    for (size_t b = 0; b < kCachedCols / qwen35::kChunk; ++b) {
      table.splitInput(groupsOfInput[b / qwen35::kGroupSuperBlocks], b % qwen35::kGroupSuperBlocks,
                       words[b * inputs + i]);
    }
  }
  const auto product = type == QuantType::Q4_K ? table.severalQ4K : table.severalQ5K;
  for ([[maybe_unused]] auto step : state) {
    product(weights.data(), quantised.data(), words.data(), inputs, y.data(), kCachedRows,
            kCachedCols);
    benchmark::DoNotOptimize(y.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(kCachedRows * kCachedCols * inputs) *
                          state.iterations());
}

void decodeInCache(benchmark::State& state, const qwen35::KernelTable& table, QuantType type) {
  const std::vector<uint8_t> weights =
      weight_rows::randomRows(type, kCachedRows, qwen35::kChunk, 1);
  std::vector<float> tile(kCachedRows * qwen35::kChunk);
  for ([[maybe_unused]] auto step : state) {
    qwen35::decodeRow(table, type, weights.data(), tile.data(), tile.size());
    benchmark::DoNotOptimize(tile.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(tile.size()) * state.iterations());
}

void tileInCache(benchmark::State& state, const qwen35::KernelTable& table, size_t tokens) {
  const std::vector<float> rows = randomFloats(kCachedRows * qwen35::kChunk, 1);
  const std::vector<float> inputs = randomFloats(tokens * qwen35::kChunk, 2);
  std::vector<float> parts(kCachedRows * tokens * qwen35::kLanes, 0.0f);
  for ([[maybe_unused]] auto step : state) {
    table.addChunkProducts(rows.data(), inputs.data(), parts.data(), kCachedRows, tokens,
                           qwen35::kChunk);
    benchmark::DoNotOptimize(parts.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(kCachedRows * tokens * qwen35::kChunk) *
                          state.iterations());
}

void quantiseInCache(benchmark::State& state, const qwen35::KernelTable& table) {
  const std::vector<float> x = randomFloats(kCachedCols, 2);
  std::vector<qwen35::QuantisedInput> quantised(qwen35::quantisedGroups(kCachedCols));
  for ([[maybe_unused]] auto step : state) {
    table.quantiseInput(x.data(), kCachedCols, quantised.data());
    benchmark::DoNotOptimize(quantised.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(kCachedCols) * state.iterations());
}

// One token's convolution over the channels of a layer of the 4B model.
void convolveInCache(benchmark::State& state, const qwen35::KernelTable& table) {
  constexpr size_t kChannels = 8192;
  constexpr size_t kTaps = 4;
  const std::vector<float> taps = randomFloats(kChannels * kTaps, 1);
  std::vector<float> history = randomFloats(kChannels * (kTaps - 1), 2);
  const std::vector<float> in = randomFloats(kChannels, 3);
  std::vector<float> out(kChannels);
  for ([[maybe_unused]] auto step : state) {
    table.convolve(taps.data(), kTaps, kTaps, history.data(), in.data(), out.data(), kChannels);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(kChannels) * state.iterations());
}

void registerTable(const qwen35::KernelTable& table) {
  const std::string prefix = std::string("cached/") + table.name + "/";
  for (const QuantType type : weight_rows::kProductTypes) {
    const std::string name = kel::quantTypeName(type);
    benchmark::RegisterBenchmark(
        (prefix + "rows/" + name).c_str(),
        [&table, type](benchmark::State& state) { rowsInCache(state, table, type); });
    benchmark::RegisterBenchmark(
        (prefix + "decode/" + name).c_str(),
        [&table, type](benchmark::State& state) { decodeInCache(state, table, type); });
  }
  if (table.severalQ4K != nullptr) {
    for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K}) {
      for (const size_t inputs : {2, 4, 8}) {
        benchmark::RegisterBenchmark(
            (prefix + "several/" + kel::quantTypeName(type) + "/" + std::to_string(inputs)).c_str(),
            [&table, type, inputs](benchmark::State& state) {
              severalInCache(state, table, type, inputs);
            });
      }
    }
  }
  for (const size_t tokens : {4, 16, 128}) {
    benchmark::RegisterBenchmark(
        (prefix + "tile/" + std::to_string(tokens)).c_str(),
        [&table, tokens](benchmark::State& state) { tileInCache(state, table, tokens); });
  }
  benchmark::RegisterBenchmark(
      (prefix + "quantiseInput").c_str(),
      [&table](benchmark::State& state) { quantiseInCache(state, table); });
  benchmark::RegisterBenchmark((prefix + "convolve").c_str(), [&table](benchmark::State& state) {
    convolveInCache(state, table);
  });
}

const bool kRegistered = [] {
  constexpr size_t kShapes[][2] = {{2560, 9216}, {4096, 2560}, {248320, 2560}};
  const int nThreads = omp_get_max_threads();
  for (const QuantType type : weight_rows::kProductTypes) {
    for (const auto& [rows, cols] : kShapes) {
      const std::string shape = std::to_string(rows) + "x" + std::to_string(cols);
      const std::string name = std::string("gemv/") + kel::quantTypeName(type) + "/" + shape;
      for (int n = 1; n <= nThreads; n *= 2) {
        benchmark::RegisterBenchmark((name + "/threads:" + std::to_string(n)).c_str(),
                                     [type, rows = rows, cols = cols, n](benchmark::State& state) {
                                       gemv(state, type, rows, cols, n);
                                     })
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        if (type == QuantType::Q4_K) {
          benchmark::RegisterBenchmark(
              ("decodeThenDot/Q4_K/" + shape + "/threads:" + std::to_string(n)).c_str(),
              [rows = rows, cols = cols, n](benchmark::State& state) {
                decodeThenDot(state, rows, cols, n);
              })
              ->UseRealTime()
              ->Unit(benchmark::kMillisecond);
        }
      }
    }
  }
  for (const qwen35::KernelTable* table : qwen35::supportedKernels()) {
    registerTable(*table);
  }
  benchmark::RegisterBenchmark("deltaStep/32x128x128", deltaStep);
  benchmark::RegisterBenchmark("addWeightedRows/4096x256", addWeightedRows);
  return true;
}();

}  // namespace
