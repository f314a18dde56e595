// Runs every kernel of every table that this machine supports, and those over plain loops, on
// weights and inputs of any bits, and compares the results with the scalar table's, bit for bit;
// any NaN equals any other.
//
// Input: seven bytes that choose the kernel, the rows, the columns (two bytes, little-endian), the
// distance of weights and of floats from alignment, how floats are made, and whether quantised
// inputs come from floats; then data, repeated as often as the buffers need. Buffers have exactly
// the promised sizes, so that the address sanitizer sees one element too many.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quant/blocks.h"
#include "qwen35/simd/dispatch.h"
#include "tests/qwen35/test_kernels.h"

namespace {

using kel::QuantType;
using qwen35::KernelTable;
using qwen35::QuantisedInput;

enum Kernel {
  Dot,
  RowsF32,
  RowsBf16,
  RowsQ80,
  RowsQ4K,
  RowsQ5K,
  QuantiseInput,
  DecodeBf16,
  DecodeQ80,
  DecodeQ4K,
  DecodeQ5K,
  AddChunkProducts,
  FoldSums,
  AddWeightedRows,
  DeltaStep,
  Exponentials,
  SigmoidGate,
  SiluGate,
  SeveralQ4K,
  SeveralQ5K,
  Convolve,
  kKernelCount
};

constexpr const char* kKernelNames[kKernelCount] = {
    "dot",          "rowsF32",          "rowsBf16",   "rowsQ80",         "rowsQ4K",
    "rowsQ5K",      "quantiseInput",    "decodeBf16", "decodeQ80",       "decodeQ4K",
    "decodeQ5K",    "addChunkProducts", "foldSums",   "addWeightedRows", "deltaStep",
    "exponentials", "sigmoidGate",      "siluGate",   "severalQ4K",      "severalQ5K",
    "convolve"};

constexpr size_t kHeaderBytes = 7;
constexpr size_t kMaxRows = 20;    // a tile of 16 rows, and more
constexpr size_t kMaxCols = 4800;  // a span of 4,096 elements, and more
constexpr size_t kMaxDim = 80;
constexpr size_t kMaxTaps = 6;
constexpr size_t kMaxChannels = 300;
constexpr size_t kMaxInputs = 11;         // eight at once, and more
constexpr size_t kMaxSeveralCols = 1600;  // of each of several inputs

enum class Floats { AnyBits, BelowTwo, Steps, kCount };

// The data after the header, over and over.
class Source {
 public:
  Source(const uint8_t* header, const uint8_t* bytes, size_t count)
      : weightOffset(header[4] % 16),
        floatOffset(header[5] % 8),
        floats(static_cast<Floats>(header[5] / 8 % static_cast<int>(Floats::kCount))),
        data(bytes),
        size(count) {}

  void fill(void* out, size_t bytes) {
    auto* to = static_cast<uint8_t*>(out);
    while (bytes > 0 && size > 0) {
      const size_t count = std::min(bytes, size - at);
      std::memcpy(to, data + at, count);
      at = (at + count) % size;
      to += count;
      bytes -= count;
    }
  }

  void fillFloats(float* out, size_t n) {
    fill(out, n * sizeof *out);
    for (size_t i = 0; i < n; ++i) {
      const auto bits = std::bit_cast<uint32_t>(out[i]);
      if (floats == Floats::BelowTwo) {  // an exponent of at most 2^0
        out[i] = std::bit_cast<float>(bits & ~0x40000000u);
      } else if (floats == Floats::Steps) {
        out[i] = static_cast<float>(static_cast<int16_t>(bits)) * 0x1p-10f;
      }
    }
  }

  float number() {
    float value = 0.0f;
    fillFloats(&value, 1);
    return value;
  }

  const size_t weightOffset;
  const size_t floatOffset;

 private:
  const Floats floats;
  const uint8_t* data;
  const size_t size;
  size_t at = 0;
};

// Bytes as far from alignment as the input says.
class Weights {
 public:
  Weights(Source& source, size_t bytes) : offset(source.weightOffset), content(offset + bytes) {
    source.fill(content.data() + offset, bytes);
  }

  const uint8_t* data() const { return content.data() + offset; }

 private:
  size_t offset;
  std::vector<uint8_t> content;
};

// The same of floats.
class Floating {
 public:
  Floating(Source& source, size_t n) : offset(source.floatOffset), content(offset + n) {
    source.fillFloats(content.data() + offset, n);
  }

  float* data() { return content.data() + offset; }

  // What a kernel made of it.
  std::vector<float> result() const {
    return {content.begin() + static_cast<ptrdiff_t>(offset), content.end()};
  }

 private:
  size_t offset;
  std::vector<float> content;
};

struct Call {
  Kernel kernel;
  size_t rows;
  size_t cols;
  bool quantises;  // inputs of quantised rows come from floats
  Source source;   // a copy for every table: each reads the same
};

std::vector<float> rowSums(Call call, qwen35::RowsProduct product, size_t blockLen,
                           size_t blockBytes) {
  const size_t cols = call.cols / blockLen * blockLen;
  const Weights weights(call.source, call.rows * (cols / blockLen) * blockBytes);
  Floating x(call.source, cols);
  Floating out(call.source, call.rows);
  product(weights.data(), x.data(), out.data(), call.rows, cols);
  return out.result();
}

// Limbs, sums and scales of any bits; last limbs that are dropped are zero.
std::vector<QuantisedInput> anyGroups(Source& source, size_t blocks) {
  std::vector<QuantisedInput> groups(qwen35::quantisedGroups(blocks * 256));
  for (size_t b = 0; b < blocks; ++b) {
    QuantisedInput& group = groups[b / 4];
    group.keepsLastLimb[b % 4] = source.number() < 0.0f;
    for (auto& pair : group.limbs[b % 4]) {
      const size_t first = group.keepsLastLimb[b % 4] ? 0 : 1;
      source.fill(pair[first], sizeof pair - first * sizeof pair[0]);
    }
    source.fillFloats(group.sums[b % 4], 8);
    group.scales[b % 4] = source.number();
  }
  return groups;
}

// Inputs that the scalar table refuses leave groups as they are: zero.
std::vector<QuantisedInput> groupsOfFloats(Source& source, size_t blocks) {
  std::vector<QuantisedInput> groups(qwen35::quantisedGroups(blocks * 256));
  Floating x(source, blocks * 256);
  const KernelTable& scalar = *qwen35::supportedKernels().front();
  if (!scalar.quantiseInput(x.data(), blocks * 256, groups.data())) {
    std::fill(groups.begin(), groups.end(), QuantisedInput{});
  }
  return groups;
}

std::vector<float> quantisedRowSums(Call call, qwen35::QuantisedRowsProduct product,
                                    size_t blockBytes) {
  const size_t blocks = call.cols / 256;
  const std::vector<QuantisedInput> groups =
      call.quantises ? groupsOfFloats(call.source, blocks) : anyGroups(call.source, blocks);
  const Weights weights(call.source, call.rows * blocks * blockBytes);
  Floating out(call.source, call.rows);
  product(weights.data(), groups.data(), out.data(), call.rows, blocks * 256);
  return out.result();
}

// Of several inputs, from tables that take them at once; from others one by one.
std::vector<float> severalRowSums(Call call, const KernelTable& table,
                                  qwen35::QuantisedRowsProducts several,
                                  qwen35::QuantisedRowsProduct product, size_t blockBytes) {
  const size_t blocks = call.cols % kMaxSeveralCols / 256;
  const size_t nGroups = qwen35::quantisedGroups(blocks * 256);
  const size_t nInputs = call.cols % kMaxInputs + 1;
  std::vector<QuantisedInput> groups;
  for (size_t i = 0; i < nInputs; ++i) {
    const std::vector<QuantisedInput> one =
        call.quantises ? groupsOfFloats(call.source, blocks) : anyGroups(call.source, blocks);
    groups.insert(groups.end(), one.begin(), one.end());
  }
  const Weights weights(call.source, call.rows * blocks * blockBytes);
  std::vector<float> out(call.rows * nInputs);
  if (several == nullptr) {
    std::vector<float> sums(call.rows);
    for (size_t i = 0; i < nInputs; ++i) {
      product(weights.data(), groups.data() + i * nGroups, sums.data(), call.rows, blocks * 256);
      for (size_t r = 0; r < call.rows; ++r) {
        out[r * nInputs + i] = sums[r];
      }
    }
    return out;
  }
  std::vector<qwen35::InputWords> words(blocks * nInputs);
  for (size_t i = 0; i < nInputs; ++i) {
    for (size_t b = 0; b < blocks; ++b) {
      table.splitInput(groups[i * nGroups + b / 4], b % 4, words[b * nInputs + i]);
    }
  }
  several(weights.data(), groups.data(), words.data(), nInputs, out.data(), call.rows,
          blocks * 256);
  return out;
}

std::vector<float> quantised(Call call, const KernelTable& table) {
  const size_t blocks = call.cols / 256;
  Floating x(call.source, blocks * 256);
  std::vector<QuantisedInput> groups(qwen35::quantisedGroups(blocks * 256));
  for (QuantisedInput& group : groups) {
    std::memset(static_cast<void*>(&group), 0xA5, sizeof group);
  }
  if (!table.quantiseInput(x.data(), blocks * 256, groups.data())) {
    return {};
  }
  std::vector<float> out{1.0f};
  for (const QuantisedInput& group : groups) {
    const int8_t* limbs = &group.limbs[0][0][0][0][0];
    out.insert(out.end(), limbs, limbs + sizeof group.limbs);
    out.insert(out.end(), &group.sums[0][0], &group.sums[0][0] + sizeof group.sums / sizeof(float));
    out.insert(out.end(), std::begin(group.scales), std::end(group.scales));
    out.insert(out.end(), std::begin(group.keepsLastLimb), std::end(group.keepsLastLimb));
  }
  return out;
}

std::vector<float> decoded(Call call, void (*decode)(const void*, float*, size_t), size_t blockLen,
                           size_t blockBytes) {
  const size_t n = call.cols / blockLen * blockLen;
  const Weights weights(call.source, n / blockLen * blockBytes);
  Floating out(call.source, n);
  decode(weights.data(), out.data(), n);
  return out.result();
}

std::vector<float> chunkParts(Call call, const KernelTable& table) {
  const size_t nRows = call.rows + 1;
  const size_t nInputs = call.cols / 256 % 16 + 1;
  const size_t len = call.cols % 256 / 8 * 8;
  Floating rows(call.source, nRows * 256);
  Floating inputs(call.source, nInputs * 256);
  Floating packed(call.source, nInputs * 256);
  Floating parts(call.source, nRows * nInputs * 8);
  for (size_t p = 0; p < nInputs; ++p) {
    const auto [first, stride] = qwen35::packedChunk(table, nInputs, p);
    for (size_t i = 0; i < len; ++i) {
      packed.data()[first + i / 8 * stride + i % 8] = inputs.data()[p * 256 + i];
    }
  }
  table.addChunkProducts(rows.data(), packed.data(), parts.data(), nRows, nInputs, len);
  return parts.result();
}

std::vector<float> folded(Call call, const KernelTable& table) {
  const size_t n = call.cols % 100;
  Floating sums(call.source, n * 8);
  Floating out(call.source, n);
  table.foldSums(sums.data(), out.data(), n);
  return out.result();
}

std::vector<float> weightedRows(Call call, const KernelTable& table) {
  const size_t n = call.cols % 300;
  const size_t stride = n + call.cols % 3;
  const float inverseSum = call.source.number();
  Floating weights(call.source, call.rows);
  Floating values(call.source, call.rows * stride);
  Floating acc(call.source, n);
  table.addWeightedRows(weights.data(), inverseSum, values.data(), stride, acc.data(), call.rows,
                        n);
  return acc.result();
}

std::vector<float> deltaStepped(Call call, const KernelTable& table) {
  const size_t keyDim = call.cols % kMaxDim + 1;  // no head is without keys
  const size_t valueDim = call.rows % kMaxDim;
  const float decay = call.source.number();
  const float beta = call.source.number();
  const float scale = call.source.number();
  Floating state(call.source, keyDim * valueDim);
  Floating q(call.source, keyDim);
  Floating k(call.source, keyDim);
  Floating v(call.source, valueDim);
  table.deltaStep(state.data(), q.data(), k.data(), v.data(), keyDim, valueDim, decay, beta, scale);
  std::vector<float> out = state.result();
  const std::vector<float> values = v.result();
  out.insert(out.end(), values.begin(), values.end());
  return out;
}

std::vector<float> convolved(Call call, const KernelTable& table) {
  const size_t nTaps = call.rows % kMaxTaps + 1;
  const size_t stride = nTaps + call.rows / kMaxTaps;
  const size_t channels = call.cols % kMaxChannels;
  Floating taps(call.source, channels * stride);
  Floating history(call.source, channels * (nTaps - 1));
  Floating in(call.source, channels);
  Floating out(call.source, channels);
  table.convolve(taps.data(), stride, nTaps, history.data(), in.data(), out.data(), channels);
  std::vector<float> both = out.result();
  const std::vector<float> moved = history.result();
  both.insert(both.end(), moved.begin(), moved.end());
  return both;
}

std::vector<float> exponentialsOf(Call call, const KernelTable& table) {
  const float shift = call.source.number();
  Floating x(call.source, call.cols);
  Floating out(call.source, call.cols);
  table.exponentials(x.data(), shift, out.data(), call.cols);
  return out.result();
}

using Gate = void (*)(const float* x, const float* gates, float* out, size_t n);

std::vector<float> gated(Call call, Gate gate) {
  Floating x(call.source, call.cols);
  Floating gates(call.source, call.cols);
  Floating out(call.source, call.cols);
  gate(x.data(), gates.data(), out.data(), call.cols);
  return out.result();
}

std::vector<float> dotOf(Call call, const KernelTable& table) {
  Floating a(call.source, call.cols);
  Floating b(call.source, call.cols);
  return {table.dot(a.data(), b.data(), call.cols)};
}

std::vector<float> results(const Call& call, const KernelTable& table) {
  using namespace kel::quant;
  switch (call.kernel) {
    case Dot:
      return dotOf(call, table);
    case RowsF32:
      return rowSums(call, table.rowsF32, 1, sizeof(float));
    case RowsBf16:
      return rowSums(call, table.rowsBf16, 1, sizeof(uint16_t));
    case RowsQ80:
      return rowSums(call, table.rowsQ80, kBlockLen, kQ80Bytes);
    case RowsQ4K:
      return quantisedRowSums(call, table.rowsQ4K, kQ4KBytes);
    case RowsQ5K:
      return quantisedRowSums(call, table.rowsQ5K, kQ5KBytes);
    case QuantiseInput:
      return quantised(call, table);
    case DecodeBf16:
      return decoded(call, table.decodeBf16, 1, sizeof(uint16_t));
    case DecodeQ80:
      return decoded(call, table.decodeQ80, kBlockLen, kQ80Bytes);
    case DecodeQ4K:
      return decoded(call, table.decodeQ4K, kSuperBlockLen, kQ4KBytes);
    case DecodeQ5K:
      return decoded(call, table.decodeQ5K, kSuperBlockLen, kQ5KBytes);
    case AddChunkProducts:
      return chunkParts(call, table);
    case FoldSums:
      return folded(call, table);
    case AddWeightedRows:
      return weightedRows(call, table);
    case DeltaStep:
      return deltaStepped(call, table);
    case Exponentials:
      return exponentialsOf(call, table);
    case SigmoidGate:
      return gated(call, table.sigmoidGate);
    case SiluGate:
      return gated(call, table.siluGate);
    case SeveralQ4K:
      return severalRowSums(call, table, table.severalQ4K, table.rowsQ4K, kQ4KBytes);
    case SeveralQ5K:
      return severalRowSums(call, table, table.severalQ5K, table.rowsQ5K, kQ5KBytes);
    default:
      return convolved(call, table);
  }
}

bool isSame(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) ||
         std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

std::vector<const KernelTable*> otherTables() {
  std::vector<const KernelTable*> tables = qwen35::supportedKernels();
  tables.erase(tables.begin());
  tables.insert(tables.end(), {&qwen35::emulatedAvx2Kernels(), &qwen35::emulatedAvx512Kernels(),
                               &qwen35::emulatedOddKernels()});
  return tables;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const KernelTable& scalar = *qwen35::supportedKernels().front();
  static const std::vector<const KernelTable*> others = otherTables();
  if (size < kHeaderBytes) {
    return 0;
  }
  const Call call{static_cast<Kernel>(data[0] % kKernelCount), data[1] % (kMaxRows + 1),
                  (data[2] + 256U * data[3]) % kMaxCols, data[6] % 2 == 0,
                  Source(data, data + kHeaderBytes, size - kHeaderBytes)};
  const std::vector<float> expected = results(call, scalar);
  for (const KernelTable* table : others) {
    const std::vector<float> actual = results(call, *table);
    if (!std::ranges::equal(expected, actual, isSame)) {
      std::fprintf(stderr, "%s of %s: %zu rows, %zu columns\n", kKernelNames[call.kernel],
                   table->name, call.rows, call.cols);
      std::abort();
    }
  }
  return 0;
}
