// Random weight rows of every type that has a product, for the kernel tests.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "quant/blocks.h"
#include "qwen35/elementwise.h"

namespace weight_rows {

using kel::QuantType;

inline constexpr QuantType kProductTypes[] = {QuantType::F32, QuantType::BF16, QuantType::Q8_0,
                                              QuantType::Q4_K, QuantType::Q5_K};

// Elements of one block; rows hold whole blocks.
inline size_t blockLen(QuantType type) {
  switch (type) {
    case QuantType::F32:
    case QuantType::BF16:
      return 1;
    case QuantType::Q8_0:
      return 32;
    default:
      return 256;
  }
}

inline size_t blockBytes(QuantType type) {
  switch (type) {
    case QuantType::F32:
      return 4;
    case QuantType::BF16:
      return 2;
    case QuantType::Q8_0:
      return 34;
    case QuantType::Q4_K:
      return 144;
    default:
      return 176;
  }
}

// The bit pattern of a result; every NaN counts as the same.
inline uint32_t bits(float value) {
  return std::isnan(value) ? 0x7FC00000u : std::bit_cast<uint32_t>(value);
}

inline std::vector<uint32_t> bits(const std::vector<float>& values) {
  std::vector<uint32_t> out;
  out.reserve(values.size());
  for (const float value : values) {
    out.push_back(bits(value));
  }
  return out;
}

inline std::vector<float> randomFloats(size_t n, uint32_t seed, float low = -1, float high = 1) {
  std::mt19937 generator(seed);
  std::uniform_real_distribution<float> value(low, high);
  std::vector<float> out(n);
  for (float& v : out) {
    v = value(generator);
  }
  return out;
}

// How the scales of blocks, or the values of unquantised rows, are drawn.
enum class Scales {
  Usual,     // magnitudes as trained weights have, both signs
  Positive,  // every decoded weight is positive or zero
  AnyBits,   // any bit pattern: subnormal, huge, infinite, NaN
};

inline uint16_t randomHalf(std::mt19937& generator, Scales scales) {
  const auto random = static_cast<uint16_t>(generator());
  switch (scales) {
    case Scales::Usual:  // sign, 2^-8 to 2^-4
      return static_cast<uint16_t>((random & 0x8FFF) | 0x1C00);
    case Scales::Positive:
      return static_cast<uint16_t>((random & 0x0FFF) | 0x1C00);
    default:
      return random;
  }
}

inline void put16(std::vector<uint8_t>& out, size_t at, uint16_t value) {
  std::memcpy(out.data() + at, &value, sizeof value);
}

// `rows` rows of `cols` elements, cols a multiple of the block length.
inline std::vector<uint8_t> randomRows(QuantType type, size_t rows, size_t cols, uint32_t seed,
                                       Scales scales = Scales::Usual) {
  std::mt19937 generator(seed);
  const size_t step = blockBytes(type);
  std::vector<uint8_t> out(rows * (cols / blockLen(type)) * step);
  for (uint8_t& byte : out) {
    byte = static_cast<uint8_t>(generator());
  }
  if (scales == Scales::AnyBits) {
    return out;
  }
  for (size_t at = 0; at < out.size(); at += step) {
    const float value = std::uniform_real_distribution<float>(
        scales == Scales::Positive ? 0.0f : -1.0f, 1.0f)(generator);
    switch (type) {
      case QuantType::F32:
        std::memcpy(out.data() + at, &value, sizeof value);
        break;
      case QuantType::BF16:
        put16(out, at, qwen35::f32ToBf16(value));
        break;
      case QuantType::Q8_0:
        put16(out, at, randomHalf(generator, scales));
        for (size_t i = 2; scales == Scales::Positive && i < step; ++i) {
          out[at + i] &= 0x7F;
        }
        break;
      default:
        put16(out, at, randomHalf(generator, scales));
        put16(out, at + 2, scales == Scales::Positive ? 0x8000 : randomHalf(generator, scales));
        break;
    }
  }
  return out;
}

// The values of a row by the decoders of the block formats.
inline std::vector<float> decoded(QuantType type, const uint8_t* row, size_t cols) {
  std::vector<float> out(cols);
  switch (type) {
    case QuantType::F32:
      if (cols > 0) {
        std::memcpy(out.data(), row, cols * sizeof(float));
      }
      break;
    case QuantType::BF16:
      for (size_t i = 0; i < cols; ++i) {
        uint16_t half;
        std::memcpy(&half, row + 2 * i, sizeof half);
        out[i] = qwen35::bf16ToF32(half);
      }
      break;
    case QuantType::Q8_0:
      kel::quant::dequantQ80(row, out.data(), cols);
      break;
    case QuantType::Q4_K:
      kel::quant::dequantQ4K(row, out.data(), cols);
      break;
    default:
      kel::quant::dequantQ5K(row, out.data(), cols);
      break;
  }
  return out;
}

}  // namespace weight_rows
