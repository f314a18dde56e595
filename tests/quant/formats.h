// The five coded element types with their library functions, and random rows, for the tests.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <ostream>
#include <random>
#include <vector>

#include "quant/blocks.h"

namespace formats {

struct Format {
  kel::QuantType type;
  size_t blockLen;
  void (*decode)(const void*, float*, size_t);
  void (*encode)(const float*, void*, size_t);
};

inline const Format kAll[] = {
    {kel::QuantType::Q4_0, 32, kel::quant::dequantQ40, kel::quant::quantQ40},
    {kel::QuantType::Q8_0, 32, kel::quant::dequantQ80, kel::quant::quantQ80},
    {kel::QuantType::Q4_K, 256, kel::quant::dequantQ4K, kel::quant::quantQ4K},
    {kel::QuantType::Q5_K, 256, kel::quant::dequantQ5K, kel::quant::quantQ5K},
    {kel::QuantType::Q6_K, 256, kel::quant::dequantQ6K, kel::quant::quantQ6K},
};

// How a parametrised test prints its format.
inline void PrintTo(const Format& format, std::ostream* out) {
  *out << kel::quantTypeName(format.type);
}

inline std::vector<uint8_t> encode(const Format& format, const std::vector<float>& row) {
  std::vector<uint8_t> blocks(kel::quant::quantizedBytes(format.type, row.size()));
  format.encode(row.data(), blocks.data(), row.size());
  return blocks;
}

inline std::vector<float> decode(const Format& format, const std::vector<uint8_t>& blocks,
                                 size_t n) {
  std::vector<float> row(n);
  format.decode(blocks.data(), row.data(), n);
  return row;
}

// The same floats bit for bit, except that any NaN equals any NaN.
inline bool sameFloat(float a, float b) {
  if (std::isnan(a) || std::isnan(b)) {
    return std::isnan(a) && std::isnan(b);
  }
  return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

// One finite random block of a kind that rotates with every call.
class RandomBlocks {
 public:
  explicit RandomBlocks(uint32_t seed) : random(seed) {}

  std::vector<float> next(size_t blockLen) {
    const size_t kind = count++ % kKinds;
    std::vector<float> x(blockLen);
    for (float& v : x) {
      v = element(kind);
    }
    return x;
  }

 private:
  static constexpr size_t kKinds = 12;

  float element(size_t kind) {
    const float normal = gauss(random);
    switch (kind) {
      case 0:  // weights as models have them
        return 0.02F * normal;
      case 1:
        return 0;
      case 2:  // mostly zeros of both signs
        return random() % 8 == 0 ? normal : std::copysign(0.0F, normal);
      case 3:  // binary32 denormals
        return finite(static_cast<uint32_t>(random()) & 0x807FFFFFU);
      case 4:  // around the smallest normals, where scales and inverses leave the range
        return std::ldexp(normal, -130);
      case 5:  // scales that are denormal in half precision
        return std::ldexp(normal, -17);
      case 6:  // scales that overflow half precision
        return normal * 1e8F;
      case 7:  // sums and differences that overflow binary32
        return std::copysign(std::numeric_limits<float>::max(), normal) * uniform(random);
      case 8:  // all positive
        return 1 + uniform(random);
      case 9:  // all negative
        return -3 - uniform(random);
      case 10:  // on a grid of quarters: ties of the rounding
        return static_cast<float>(static_cast<int>(random() % 1017) - 508) * 0.25F;
      default:  // any finite bits
        return finite(static_cast<uint32_t>(random()));
    }
  }

  // The bits with an exponent of all ones replaced.
  static float finite(uint32_t bits) {
    const bool special = (bits & 0x7F800000U) == 0x7F800000U;
    return std::bit_cast<float>(special ? bits & ~0x00800000U : bits);
  }

  std::mt19937 random;
  std::normal_distribution<float> gauss;
  std::uniform_real_distribution<float> uniform{0, 1};
  size_t count = 0;
};

}  // namespace formats
