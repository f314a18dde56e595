// What low-bit sources are stored in by default follows from how much of their error re-encoding
// adds, measured here.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "convert/source_type.h"
#include "convert/storage_choice.h"
#include "convert/tensor_rows.h"
#include "quant/blocks.h"
#include "tests/convert/low_bit_formats.h"

namespace {

using kel::QuantType;
using kel::convert::SourceType;
using Row = std::vector<float>;

constexpr size_t kElements = size_t{256} * 160;

double squaredError(const Row& a, const Row& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    const double miss = static_cast<double>(a[i]) - static_cast<double>(b[i]);
    sum += miss * miss;
  }
  return sum;
}

Row reencoded(QuantType type, const Row& row) {
  std::vector<uint8_t> bytes(kel::quant::quantizedBytes(type, row.size()));
  kel::convert::encodeRow(type, row.data(), row.size(), bytes.data());
  Row decoded(row.size());
  (type == QuantType::Q4_K   ? kel::quant::dequantQ4K
   : type == QuantType::Q5_K ? kel::quant::dequantQ5K
                             : kel::quant::dequantQ80)(bytes.data(), decoded.data(), row.size());
  return decoded;
}

template <typename Distribution>
Row weights(Distribution distribution) {
  std::mt19937 random(1);
  Row row(kElements);
  for (float& v : row) {
    v = distribution(random);
  }
  return row;
}

// The smallest type that adds less than a tenth to the squared error that the source type has.
QuantType smallestKeeping(const Row& original, const Row& source) {
  const double own = squaredError(source, original);
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K}) {
    if (squaredError(reencoded(type, source), source) < own / 10) {
      return type;
    }
  }
  EXPECT_LT(squaredError(reencoded(QuantType::Q8_0, source), source), own / 10);
  return QuantType::Q8_0;
}

// The figures of docs/converting.md.
struct Figures {
  SourceType type;
  double own;  // error relative to the weights
  // Squared error that encoding anew adds, relative to the source's own.
  double q4k;
  double q5k;
  double q80;
};

constexpr Figures kFigures[] = {
    {SourceType::Q2_K, 0.260, 0.025, 0.0066, 0.00033},
    {SourceType::Q3_K, 0.145, 0.130, 0.032, 0.0013},
    {SourceType::Q4_0, 0.0816, 0.020, 0.035, 0.0040},
    {SourceType::Q4_1, 0.0701, 0.036, 0.036, 0.0056},
    {SourceType::IQ4_NL, 0.0744, 0.62, 0.164, 0.00074},
    {SourceType::IQ4_XS, 0.0747, 0.62, 0.163, 0.00076},
    {SourceType::MXFP4, 0.112, 0.26, 0.066, 0.0026},
    {SourceType::Q5_0, 0.0407, 3.0, 0.147, 0.0165},
    {SourceType::Q5_1, 0.0345, 4.0, 0.150, 0.024},
    {SourceType::Q6_K, 0.0170, 17.5, 4.2, 0.098},
};

void PrintTo(const Figures& figures, std::ostream* out) {
  *out << kel::convert::sourceTypeInfo(figures.type).name;
}

class AddedError : public testing::TestWithParam<Figures> {};
INSTANTIATE_TEST_SUITE_P(Sources, AddedError, testing::ValuesIn(kFigures), [](const auto& each) {
  return std::string(kel::convert::sourceTypeInfo(each.param.type).name);
});

TEST_P(AddedError, DefaultIsTheSmallestTypeThatKeepsThePrecision) {
  const std::string name = kel::convert::sourceTypeInfo(GetParam().type).name;
  const Row original = weights(std::normal_distribution<float>());
  const Row source = kel::test::throughFormat(name, original);
  const double own = squaredError(source, original);
  const QuantType chosen =
      kel::convert::chooseStorage({kel::TensorRole::FfnUp, GetParam().type, 2560}, {}).type;
  EXPECT_STREQ(quantTypeName(smallestKeeping(original, source)),
               quantTypeName(chosen));  // The two errors are as good as independent.
  EXPECT_LT(std::sqrt(squaredError(reencoded(chosen, source), original) / own), 1.05);

  const auto added = [&](QuantType type) {
    return squaredError(reencoded(type, source), source) / own;
  };
  const double norm = squaredError(original, Row(original.size()));
  EXPECT_NEAR(GetParam().own, std::sqrt(own / norm), 0.02 * GetParam().own);
  EXPECT_NEAR(GetParam().q4k, added(QuantType::Q4_K), 0.05 * GetParam().q4k);
  EXPECT_NEAR(GetParam().q5k, added(QuantType::Q5_K), 0.05 * GetParam().q5k);
  EXPECT_NEAR(GetParam().q80, added(QuantType::Q8_0), 0.05 * GetParam().q80);
}

// Scales that differ more from block to block do not change the choice.
TEST_P(AddedError, HoldsForHeavyTailedWeights) {
  const std::string name = kel::convert::sourceTypeInfo(GetParam().type).name;
  const Row original = weights(std::student_t_distribution<float>(5));
  const Row source = kel::test::throughFormat(name, original);
  const QuantType chosen =
      kel::convert::chooseStorage({kel::TensorRole::FfnUp, GetParam().type, 2560}, {}).type;
  const double own = squaredError(source, original);
  EXPECT_LT(squaredError(reencoded(chosen, source), source), own / 10);
}

}  // namespace
