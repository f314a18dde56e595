#include "tests/quant/reference_codec.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace reference {

namespace {

using kel::QuantType;

// Some bits of a byte; width 0 is no bits.
struct Bits {
  size_t byte;
  int shift;
  int width;
};

// A number stored in two pieces.
struct Split {
  Bits low;
  Bits high;
};

int read(const uint8_t* block, Bits bits) {
  return (block[bits.byte] >> bits.shift) & ((1 << bits.width) - 1);
}

int read(const uint8_t* block, Split split) {
  return read(block, split.low) | read(block, split.high) << split.low.width;
}

void write(uint8_t* block, Bits bits, int value) {
  const int mask = ((1 << bits.width) - 1) << bits.shift;
  block[bits.byte] =
      static_cast<uint8_t>((block[bits.byte] & ~mask) | ((value << bits.shift) & mask));
}

void write(uint8_t* block, Split split, int value) {
  write(block, split.low, value);
  write(block, split.high, value >> split.low.width);
}

struct Layout {
  size_t blockLen;
  size_t blockBytes;
  size_t dAt;
  size_t subBlockLen;
};

Layout layoutOf(QuantType type) {
  switch (type) {
    case QuantType::Q4_0:
      return {32, 18, 0, 32};
    case QuantType::Q8_0:
      return {32, 34, 0, 32};
    case QuantType::Q4_K:
      return {256, 144, 0, 32};
    case QuantType::Q5_K:
      return {256, 176, 0, 32};
    default:
      return {256, 210, 208, 16};
  }
}

// Where the code of element i of a block lies.
Split codeBits(QuantType type, size_t i) {
  const auto run = static_cast<int>(i / 32);
  const size_t l = i % 32;
  switch (type) {
    case QuantType::Q4_0:
      return {{2 + i / 2, i % 2 == 0 ? 0 : 4, 4}, {}};
    case QuantType::Q8_0:
      return {{2 + i, 0, 8}, {}};
    case QuantType::Q4_K:
      return {{16 + i / 64 * 32 + l, run % 2 * 4, 4}, {}};
    case QuantType::Q5_K:
      return {{48 + i / 64 * 32 + l, run % 2 * 4, 4}, {16 + l, run, 1}};
    default: {
      const size_t half = i / 128;
      const int quarter = run % 4;
      return {{64 * half + l + (quarter % 2 == 1 ? 32 : 0), quarter < 2 ? 0 : 4, 4},
              {128 + 32 * half + l, 2 * quarter, 2}};
    }
  }
}

// Where scale and minimum of sub-block j of a Q4_K or Q5_K block lie.
Split scaleBits(size_t j) {
  if (j < 4) {
    return {{4 + j, 0, 6}, {}};
  }
  return {{8 + j, 0, 4}, {j, 6, 2}};
}

Split minBits(size_t j) {
  if (j < 4) {
    return {{8 + j, 0, 6}, {}};
  }
  return {{8 + j, 4, 4}, {4 + j, 6, 2}};
}

bool hasMins(QuantType type) {
  return type == QuantType::Q4_K || type == QuantType::Q5_K;
}

double readHalf(const uint8_t* p) {
  return numberFromHalf(static_cast<uint16_t>(p[0] + 256 * p[1]));
}

// Stores the half nearest to value and returns it. A NaN has no nearest half; the sign of the quiet
// NaN that stands for it does not matter to what follows.
double writeHalf(uint8_t* p, float value) {
  const uint16_t h = std::isnan(value) ? (std::signbit(value) ? 0xFE00 : 0x7E00)
                                       : halfFromNumber(static_cast<double>(value));
  p[0] = static_cast<uint8_t>(h % 256);
  p[1] = static_cast<uint8_t>(h / 256);
  return readHalf(p);
}

float single(double value) {
  return static_cast<float>(value);
}

// Truncated and clamped; NaN counts as the lowest.
int clampedInt(float value, int lowest, int highest) {
  if (std::isnan(value)) {
    return lowest;
  }
  const double whole = std::trunc(static_cast<double>(value));
  return static_cast<int>(std::clamp<double>(whole, lowest, highest));
}

int rounded(float value, int lowest, int highest) {
  return clampedInt(value < 0 ? value - 0.5F : value + 0.5F, lowest, highest);
}

double magnitudeOf(const float* values, size_t count) {
  double most = 0;
  for (size_t i = 0; i < count; ++i) {
    most = std::max(most, std::fabs(static_cast<double>(values[i])));
  }
  return most;
}

void encodeQ40(const float* x, uint8_t* block) {
  const float* max =
      std::max_element(x, x + 32, [](float a, float b) { return std::fabs(a) < std::fabs(b); });
  const float d = *max == 0 ? 0 : single(-static_cast<double>(*max) / 8);
  const float inverse = *max == 0 ? 0 : 1.0F / d;
  writeHalf(block, d);
  for (size_t i = 0; i < 32; ++i) {
    // Single precision as documented: the last bit of the fused sum decides the code.
    const int code = clampedInt(std::fmaf(x[i], inverse, 8.5F), 0, 15);
    write(block, codeBits(QuantType::Q4_0, i), code);
  }
}

void encodeQ80(const float* x, uint8_t* block) {
  const float d = single(magnitudeOf(x, 32) / 127.0);
  writeHalf(block, d);
  for (size_t i = 0; i < 32; ++i) {
    const float ratio = d == 0 ? 0 : single(static_cast<double>(x[i]) / static_cast<double>(d));
    write(block, codeBits(QuantType::Q8_0, i), rounded(ratio, -127, 127));
  }
}

// Eight values as multiples 0..63 of largest / 63.
float sixBits(const float* values, std::vector<int>& codes) {
  const float most = std::max(0.0F, *std::max_element(values, values + 8));
  const float inverse = most > 0 ? 63.0F / most : 0;
  for (int j = 0; j < 8; ++j) {
    codes.push_back(rounded(inverse * values[j], 0, 63));
  }
  return single(static_cast<double>(most) / 63.0);
}

void encodeScaleMin(QuantType type, const float* x, uint8_t* block) {
  const int levels = type == QuantType::Q4_K ? 15 : 31;
  float scales[8];
  float mins[8];
  for (size_t j = 0; j < 8; ++j) {
    const auto [least, most] = std::minmax_element(x + 32 * j, x + 32 * j + 32);
    scales[j] = (*most - *least) / static_cast<float>(levels);
    mins[j] = -*least;
  }
  std::vector<int> scaleCodes;
  std::vector<int> minCodes;
  const double d = writeHalf(block, sixBits(scales, scaleCodes));
  const double dmin = writeHalf(block + 2, sixBits(mins, minCodes));
  for (size_t j = 0; j < 8; ++j) {
    write(block, scaleBits(j), scaleCodes[j]);
    write(block, minBits(j), minCodes[j]);
  }
  for (size_t i = 0; i < 256; ++i) {
    const size_t j = i / 32;
    // A half times a 6-bit number fits single precision.
    float step = single(scaleCodes[j] * d);
    float offset = single(minCodes[j] * dmin);
    if (step == 0) {
      step = scales[j];
      offset = mins[j];
    }
    const int code = step == 0 ? 0 : rounded((x[i] + offset) / step, 0, levels);
    write(block, codeBits(type, i), code);
  }
}

void encodeQ6K(const float* x, uint8_t* block) {
  float steps[16];
  for (size_t i = 0; i < 16; ++i) {
    steps[i] = single(magnitudeOf(x + 16 * i, 16) / 31.0);
  }
  const float largest = *std::max_element(steps, steps + 16);
  const double d = writeHalf(block + 208, single(static_cast<double>(largest) / 127.0));
  for (size_t i = 0; i < 256; ++i) {
    const int scale = d > 0 ? rounded(single(static_cast<double>(steps[i / 16]) / d), 0, 127) : 0;
    block[192 + i / 16] = static_cast<uint8_t>(scale);
    const float step = single(scale * d);
    const int code = step == 0 ? 0 : rounded(x[i] / step, -32, 31);
    write(block, codeBits(QuantType::Q6_K, i), code + 32);
  }
}

}  // namespace

uint16_t halfFromNumber(double value) {
  const int sign = std::signbit(value) ? 0x8000 : 0;
  const double magnitude = std::fabs(value);
  if (magnitude >= 65520) {
    return static_cast<uint16_t>(sign + 0x7C00);
  }
  if (magnitude == 0) {
    return static_cast<uint16_t>(sign);
  }
  // Multiples of 2^unit; from 1024 units up the pattern's exponent field counts binades.
  const int unit = std::max(std::ilogb(magnitude), -14) - 10;
  const auto units = static_cast<int>(std::nearbyint(std::ldexp(magnitude, -unit)));
  return static_cast<uint16_t>(sign + (unit + 24) * 1024 + units);
}

double numberFromHalf(uint16_t h) {
  const int exponent = h / 1024 % 32;
  const int mantissa = h % 1024;
  double magnitude = 0;
  if (exponent == 31) {
    magnitude = mantissa == 0 ? std::numeric_limits<double>::infinity()
                              : std::numeric_limits<double>::quiet_NaN();
  } else if (exponent == 0) {
    magnitude = std::ldexp(mantissa, -24);
  } else {
    magnitude = std::ldexp(1024 + mantissa, exponent - 25);
  }
  return h >= 0x8000 ? -magnitude : magnitude;
}

Grid gridOf(QuantType type, const Bytes& blocks, size_t i) {
  const Layout layout = layoutOf(type);
  const uint8_t* block = blocks.data() + i / layout.blockLen * layout.blockBytes;
  const size_t at = i % layout.blockLen;
  const size_t sub = at / layout.subBlockLen;
  const int stored = read(block, codeBits(type, at));
  const double d = readHalf(block + layout.dAt);
  switch (type) {
    case QuantType::Q4_0:
      return {stored - 8, -8, 7, 1, d, 0};
    case QuantType::Q8_0:
      return {stored < 128 ? stored : stored - 256, -128, 127, 1, d, 0};
    case QuantType::Q6_K: {
      const int scale = block[192 + sub];
      return {stored - 32, -32, 31, scale < 128 ? scale : scale - 256, d, 0};
    }
    default:
      return {stored,
              0,
              type == QuantType::Q4_K ? 15 : 31,
              read(block, scaleBits(sub)),
              d,
              -readHalf(block + 2) * read(block, minBits(sub))};
  }
}

std::vector<float> decode(QuantType type, const Bytes& blocks, size_t n) {
  std::vector<float> row(n);
  for (size_t i = 0; i < n; ++i) {
    const Grid grid = gridOf(type, blocks, i);
    if (hasMins(type)) {
      const float step = single(grid.scale * grid.d);
      row[i] = std::fmaf(static_cast<float>(grid.code), step, single(grid.offset));
    } else {
      row[i] = single(grid.code * grid.scale * grid.d);
    }
  }
  return row;
}

Bytes encode(QuantType type, const std::vector<float>& row) {
  const Layout layout = layoutOf(type);
  const size_t blocks = (row.size() + layout.blockLen - 1) / layout.blockLen;
  std::vector<float> padded = row;
  padded.resize(blocks * layout.blockLen, 0);
  Bytes result(blocks * layout.blockBytes);
  for (size_t b = 0; b < blocks; ++b) {
    const float* x = padded.data() + b * layout.blockLen;
    uint8_t* block = result.data() + b * layout.blockBytes;
    switch (type) {
      case QuantType::Q4_0:
        encodeQ40(x, block);
        break;
      case QuantType::Q8_0:
        encodeQ80(x, block);
        break;
      case QuantType::Q6_K:
        encodeQ6K(x, block);
        break;
      default:
        encodeScaleMin(type, x, block);
        break;
    }
  }
  return result;
}

}  // namespace reference
