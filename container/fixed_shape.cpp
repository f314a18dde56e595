#include "container/fixed_shape.h"

#include <cstdio>

namespace kel {

namespace {

struct Extent {
  uint64_t ModelShape::*field;
  const char* what;
};

constexpr Extent kExtents[] = {
    {&ModelShape::queryHeads, "query heads"},
    {&ModelShape::kvHeads, "key/value heads"},
    {&ModelShape::headDim, "dimensions of a head"},
    {&ModelShape::ropeDim, "rotated dimensions"},
    {&ModelShape::linearKeyHeads, "key heads of linear attention"},
    {&ModelShape::linearValueHeads, "value heads of linear attention"},
    {&ModelShape::linearKeyDim, "key dimensions of linear attention"},
    {&ModelShape::linearValueDim, "value dimensions of linear attention"},
    {&ModelShape::convTaps, "taps of the convolution"},
};

struct Fraction {
  double ModelShape::*field;
  const char* what;
};

constexpr Fraction kFractions[] = {
    {&ModelShape::ropeBase, "rotary base"},
    {&ModelShape::normEps, "epsilon of norms"},
};

std::string count(uint64_t fixed, const char* what, uint64_t other) {
  return "models of " + std::to_string(fixed) + " " + what + ", not of " + std::to_string(other);
}

std::string fraction(const char* what, double fixed, double other) {
  char text[96];
  (void)std::snprintf(text, sizeof text, "models of the %s %g, not of %g", what, fixed, other);
  return text;
}

}  // namespace

std::string differenceFromFixed(const ModelShape& shape) {
  if (shape.layers != kFixedShape.layers) {
    return count(kFixedShape.layers, "layers", shape.layers);
  }
  for (const Extent& extent : kExtents) {
    if (shape.*extent.field != kFixedShape.*extent.field) {
      return count(kFixedShape.*extent.field, extent.what, shape.*extent.field);
    }
  }
  for (const Fraction& number : kFractions) {
    const double fixed = kFixedShape.*number.field;
    const double other = shape.*number.field;
    if (static_cast<float>(other) != static_cast<float>(fixed)) {
      return fraction(number.what, fixed, other);
    }
  }
  return {};
}

}  // namespace kel
