#include "tests/convert/low_bit_formats.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <span>
#include <stdexcept>

#include "quant/blocks.h"

namespace kel::test {

namespace {

using Levels = std::vector<double>;
using Values = std::span<const float>;
using Out = std::span<float>;

constexpr double kNoError = std::numeric_limits<double>::infinity();

double half(double v) {
  return quant::f16ToF32(quant::f32ToF16(static_cast<float>(v)));
}

// The best of several tries at one stretch of a row.
class Best {
 public:
  explicit Best(Out target) : out(target) {}

  // Keeps the values if they are nearer to x than those of earlier tries.
  bool offer(Values x, const std::vector<float>& values) {
    double error = 0;
    for (size_t i = 0; i < x.size(); ++i) {
      const double miss = static_cast<double>(values[i]) - static_cast<double>(x[i]);
      error += miss * miss;
    }
    if (error >= least) {
      return false;
    }
    least = error;
    std::copy(values.begin(), values.end(), out.begin());
    return true;
  }

 private:
  Out out;
  double least = kNoError;
};

std::vector<float> nearest(Values x, double scale, const Levels& levels) {
  std::vector<float> values;
  for (const float v : x) {
    double best = kNoError;
    double value = 0;
    for (const double level : levels) {
      const double miss = std::abs(scale * level - static_cast<double>(v));
      if (miss < best) {
        best = miss;
        value = scale * level;
      }
    }
    values.push_back(static_cast<float>(value));
  }
  return values;
}

std::vector<float> nearestOf(Values x, double scale, double min, int levels) {
  std::vector<float> values;
  for (const float v : x) {
    const double code = scale > 0 ? std::round((static_cast<double>(v) - min) / scale) : 0;
    values.push_back(static_cast<float>(std::clamp<double>(code, 0, levels) * scale + min));
  }
  return values;
}

Levels whole(int first, int last) {
  Levels levels;
  for (int i = first; i <= last; ++i) {
    levels.push_back(i);
  }
  return levels;
}

Levels nonLinear() {
  return {-127, -104, -83, -65, -49, -35, -22, -10, 1, 13, 25, 38, 53, 69, 89, 113};
}

// Scales that bring the element of largest magnitude near the level of largest magnitude.
std::vector<double> likelyScales(Values x, double largestLevel) {
  const float largest = *std::max_element(
      x.begin(), x.end(), [](float a, float b) { return std::abs(a) < std::abs(b); });
  std::vector<double> scales;
  for (double part = 0.7; part < 1.11; part += 0.025) {
    scales.push_back(part * static_cast<double>(largest) / largestLevel);
    scales.push_back(-scales.back());
  }
  return scales;
}

// Blocks of 32 with one half-precision scale.
void blocks(const Levels& levels, double largestLevel, Values x, Out out) {
  for (size_t at = 0; at < x.size(); at += 32) {
    const Values sub = x.subspan(at, 32);
    Best best(out.subspan(at, 32));
    for (const double scale : likelyScales(sub, largestLevel)) {
      best.offer(sub, nearest(sub, half(scale), levels));
    }
  }
}

// The same with a minimum.
void blocksWithMinimum(int levels, Values x, Out out) {
  for (size_t at = 0; at < x.size(); at += 32) {
    const Values sub = x.subspan(at, 32);
    const auto [least, most] = std::minmax_element(sub.begin(), sub.end());
    const double range = static_cast<double>(*most) - static_cast<double>(*least);
    Best best(out.subspan(at, 32));
    for (double low = -0.1; low < 0.13; low += 0.02) {
      for (double high = -0.1; high < 0.13; high += 0.02) {
        const double min = half(static_cast<double>(*least) + low * range);
        const double scale = half((static_cast<double>(*most) - high * range - min) / levels);
        best.offer(sub, nearestOf(sub, scale, min, levels));
      }
    }
  }
}

// Super-blocks with whole-number scales -mostScale - 1 .. mostScale per subLen elements.
void superBlocks(const Levels& levels, double largestLevel, size_t subLen, int mostScale, Values x,
                 Out out) {
  for (size_t at = 0; at < x.size(); at += 256) {
    std::vector<double> wanted;
    for (size_t sub = at; sub < at + 256; sub += subLen) {
      const Values values = x.subspan(sub, subLen);
      Best best(out.subspan(sub, subLen));
      double& scale = wanted.emplace_back();
      for (const double tried : likelyScales(values, largestLevel)) {
        if (best.offer(values, nearest(values, tried, levels))) {
          scale = tried;
        }
      }
    }
    const double largest =
        std::abs(*std::max_element(wanted.begin(), wanted.end(),
                                   [](double a, double b) { return std::abs(a) < std::abs(b); }));
    const double d = half(largest / mostScale);
    for (size_t j = 0; j < wanted.size(); ++j) {
      const Values values = x.subspan(at + j * subLen, subLen);
      Best best(out.subspan(at + j * subLen, subLen));
      for (const int step : {-1, 0, 1}) {
        const double scale =
            std::clamp<double>(std::round(wanted[j] / d) + step, -mostScale - 1, mostScale);
        best.offer(values, nearest(values, d * scale, levels));
      }
    }
  }
}

// Four levels with 4-bit scales and minimums per 16 elements.
void superBlocksQ2K(Values x, Out out) {
  for (size_t at = 0; at < x.size(); at += 256) {
    double scales[16] = {};
    double mins[16] = {};
    double mostScale = 0;
    double mostMin = 0;
    for (size_t j = 0; j < 16; ++j) {
      const Values sub = x.subspan(at + 16 * j, 16);
      const auto [least, most] = std::minmax_element(sub.begin(), sub.end());
      const double base = std::min(0.0, static_cast<double>(*least));
      const double range = static_cast<double>(*most) - base;
      Best best(out.subspan(at + 16 * j, 16));
      for (double low = 0; low < 0.41; low += 0.025) {
        for (double high = 0; high < 0.41; high += 0.025) {
          const double min = std::min(0.0, base + low * range);
          const double scale = (base + range - high * range - min) / 3;
          if (best.offer(sub, nearestOf(sub, scale, min, 3))) {
            scales[j] = scale;
            mins[j] = -min;
          }
        }
      }
      mostScale = std::max(mostScale, scales[j]);
      mostMin = std::max(mostMin, mins[j]);
    }
    const double d = half(mostScale / 15);
    const double dmin = half(mostMin / 15);
    for (size_t j = 0; j < 16; ++j) {
      const Values sub = x.subspan(at + 16 * j, 16);
      Best best(out.subspan(at + 16 * j, 16));
      for (int k = 0; k < 9; ++k) {
        const double scale = std::clamp<double>(std::round(scales[j] / d) + k / 3 - 1, 0, 15);
        const double min = std::clamp<double>(std::round(mins[j] / dmin) + k % 3 - 1, 0, 15);
        best.offer(sub, nearestOf(sub, d * scale, -dmin * min, 3));
      }
    }
  }
}

// Blocks of 32 with a power of two as their scale.
void blocksMXFP4(Values x, Out out) {
  const Levels levels = {0, 0.5, 1, 1.5, 2, 3, 4, 6, -0.5, -1, -1.5, -2, -3, -4, -6};
  for (size_t at = 0; at < x.size(); at += 32) {
    const Values sub = x.subspan(at, 32);
    const auto [least, most] = std::minmax_element(sub.begin(), sub.end());
    int exponent = 0;
    std::frexp(std::max(-*least, *most), &exponent);
    Best best(out.subspan(at, 32));
    for (int e = exponent - 4; e < exponent; ++e) {
      best.offer(sub, nearest(sub, std::ldexp(1.0, e), levels));
    }
  }
}

}  // namespace

std::vector<float> throughFormat(const std::string& format, const std::vector<float>& row) {
  using Encoder = std::function<void(Values, Out)>;
  static const std::map<std::string, Encoder> kEncoders = {
      {"Q4_0", [](Values x, Out out) { blocks(whole(-8, 7), -8, x, out); }},
      {"Q4_1", [](Values x, Out out) { blocksWithMinimum(15, x, out); }},
      {"Q5_0", [](Values x, Out out) { blocks(whole(-16, 15), -16, x, out); }},
      {"Q5_1", [](Values x, Out out) { blocksWithMinimum(31, x, out); }},
      {"Q2_K", superBlocksQ2K},
      {"Q3_K", [](Values x, Out out) { superBlocks(whole(-4, 3), -4, 16, 31, x, out); }},
      {"Q6_K", [](Values x, Out out) { superBlocks(whole(-32, 31), -32, 16, 127, x, out); }},
      {"IQ4_NL", [](Values x, Out out) { blocks(nonLinear(), -127, x, out); }},
      {"IQ4_XS", [](Values x, Out out) { superBlocks(nonLinear(), -127, 32, 31, x, out); }},
      {"MXFP4", blocksMXFP4},
  };
  std::vector<float> stored(row.size());
  kEncoders.at(format)(row, stored);
  return stored;
}

}  // namespace kel::test
