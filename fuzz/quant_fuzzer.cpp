// Feeds any bytes to every block decoder as blocks and to every encoder as floats.
//
// Input: one byte that chooses the format, two bytes (little-endian) of element count, then data,
// repeated as often as the buffers need. Buffers have exactly the promised sizes, so that the
// address sanitizer sees one byte too many.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quant/blocks.h"
#include "quant/least_squares_k.h"

namespace {

using kel::QuantType;
using namespace kel::quant;

struct Format {
  QuantType type;
  void (*decode)(const void*, float*, size_t);
  void (*encode)(const float*, void*, size_t);
};

constexpr Format kFormats[] = {
    {QuantType::Q4_0, dequantQ40, quantQ40},        {QuantType::Q8_0, dequantQ80, quantQ80},
    {QuantType::Q4_K, dequantQ4K, quantQ4K},        {QuantType::Q5_K, dequantQ5K, quantQ5K},
    {QuantType::Q6_K, dequantQ6K, quantQ6K},        {QuantType::Q4_K, dequantQ4K, leastSquaresQ4K},
    {QuantType::Q5_K, dequantQ5K, leastSquaresQ5K},
};
constexpr size_t kFormatCount = sizeof(kFormats) / sizeof(kFormats[0]);

void fill(void* out, size_t bytes, const uint8_t* data, size_t size) {
  auto* at = static_cast<uint8_t*>(out);
  for (size_t i = 0; i < bytes; ++i) {
    at[i] = size > 0 ? data[i % size] : 0;
  }
}

void decodeThenEncode(const Format& format, size_t n, const uint8_t* data, size_t size) {
  std::vector<uint8_t> blocks(quantizedBytes(format.type, n));
  fill(blocks.data(), blocks.size(), data, size);
  std::vector<float> row(n);
  format.decode(blocks.data(), row.data(), n);
  format.encode(row.data(), blocks.data(), n);
}

// Encoding depends on the floats alone, not on what the buffer held.
void encodeTwice(const Format& format, size_t n, const uint8_t* data, size_t size) {
  std::vector<float> row(n);
  fill(row.data(), n * sizeof(float), data, size);
  std::vector<uint8_t> blocks(quantizedBytes(format.type, n), 0x00);
  std::vector<uint8_t> again(blocks.size(), 0xFF);
  format.encode(row.data(), blocks.data(), n);
  format.encode(row.data(), again.data(), n);
  if (blocks != again) {
    std::abort();
  }
  format.decode(blocks.data(), row.data(), n);
}

void decodeQ8K(size_t n, const uint8_t* data, size_t size) {
  std::vector<uint8_t> blocks(n / kSuperBlockLen * kQ8KBytes);
  fill(blocks.data(), blocks.size(), data, size);
  std::vector<float> row(n);
  dequantQ8K(blocks.data(), row.data(), n);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) {
    return 0;
  }
  const size_t choice = data[0] % (kFormatCount + 1);
  const size_t n = (data[1] + 256U * data[2]) % 2048;
  data += 3;
  size -= 3;
  if (choice == kFormatCount) {
    decodeQ8K(n, data, size);
    return 0;
  }
  decodeThenEncode(kFormats[choice], n, data, size);
  encodeTwice(kFormats[choice], n, data, size);
  return 0;
}
