#include "quant/non_finite.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>

#include "quant/block_sizes.h"

namespace kel::quant {

namespace {

// Bits of a floating-point format without its sign: from infinity's on, they stand for no number.
struct Format32 {
  using Word = uint32_t;
  static constexpr Word kMagnitude = 0x7FFFFFFF;
  static constexpr Word kInfinity = 0x7F800000;
};
struct FormatF16 {
  using Word = uint16_t;
  static constexpr Word kMagnitude = 0x7FFF;
  static constexpr Word kInfinity = 0x7C00;
};
struct FormatBf16 {
  using Word = uint16_t;
  static constexpr Word kMagnitude = 0x7FFF;
  static constexpr Word kInfinity = 0x7F80;
};

template <typename Format>
typename Format::Word magnitudeAt(const uint8_t* data) {
  typename Format::Word bits = 0;
  std::memcpy(&bits, data, sizeof(bits));
  return bits & Format::kMagnitude;
}

template <typename Format>
std::optional<uint64_t> firstInPlain(const uint8_t* data, uint64_t n) {
  constexpr size_t kBytes = sizeof(typename Format::Word);
  // Short enough that a chunk in which something is found is soon searched value by value.
  constexpr uint64_t kChunk = 1024;
  for (uint64_t begin = 0; begin < n; begin += kChunk) {
    const uint64_t end = std::min(n, begin + kChunk);
    // Without a branch in it, so that it vectorises.
    typename Format::Word largest = 0;
    for (uint64_t i = begin; i < end; ++i) {
      largest = std::max(largest, magnitudeAt<Format>(data + i * kBytes));
    }
    if (largest < Format::kInfinity) {
      continue;
    }
    uint64_t found = begin;
    while (magnitudeAt<Format>(data + found * kBytes) < Format::kInfinity) {
      ++found;
    }
    return found;
  }
  return std::nullopt;
}

// halves: offsets of the half-precision fields of a block.
std::optional<uint64_t> firstInBlocks(QuantType type, const uint8_t* data, uint64_t n,
                                      std::initializer_list<size_t> halves) {
  const BlockFormat format = blockFormat(type);
  for (uint64_t at = 0; at < n; at += format.elements, data += format.bytes) {
    for (const size_t half : halves) {
      if (magnitudeAt<FormatF16>(data + half) >= FormatF16::kInfinity) {
        return at;
      }
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<uint64_t> firstNonFinite(QuantType type, const uint8_t* data, uint64_t n) {
  switch (type) {
    case QuantType::F32:
      return firstInPlain<Format32>(data, n);
    case QuantType::F16:
      return firstInPlain<FormatF16>(data, n);
    case QuantType::BF16:
      return firstInPlain<FormatBf16>(data, n);
    case QuantType::Q4_0:
    case QuantType::Q8_0:
      return firstInBlocks(type, data, n, {0});
    case QuantType::Q4_K:
    case QuantType::Q5_K:
      return firstInBlocks(type, data, n, {0, 2});
    case QuantType::Q6_K:
      return firstInBlocks(type, data, n, {208});
    case QuantType::IQ4_XS:
      break;
  }
  return std::nullopt;
}

}  // namespace kel::quant
