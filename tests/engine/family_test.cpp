// Every size of the family, and shapes that no size has, against an independent account in double
// precision; and their bits, whatever they are computed with.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "tests/engine/engine_models.h"
#include "tests/qwen35/tested_tables.h"
#include "tests/support/family_shapes.h"
#include "tests/support/float_bits.h"
#include "tests/support/instrumented.h"
#include "tests/support/reference_model.h"

namespace engine {
namespace {

using kel::QuantType;
using kel::test::Bits;
using kel::test::NamedShape;
using kel::test::RandomModelSpec;
using testing_support::feed;
using testing_support::logitsOf;
using testing_support::OpenedModel;

RandomModelSpec specOf(const kel::ModelShape& shape, uint64_t hidden,
                       std::vector<QuantType> types) {
  return {.hidden = hidden,
          .ffn = 256,
          .vocab = 260,
          .types = std::move(types),
          .shape = shape,
          .statesShape = true};
}

double relativeError(const kel::test::Vector& expected, const std::vector<float>& got) {
  double difference = 0;
  double size = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    const double off = static_cast<double>(got[i]) - expected[i];
    difference += off * off;
    size += expected[i] * expected[i];
  }
  return std::sqrt(difference / size);
}

// The logits of a prompt's last token and of two generated ones.
void expectReferenceLogits(const RandomModelSpec& spec, double tolerance) {
  const OpenedModel opened(spec);
  ASSERT_EQ(spec.shape, opened.model->shape());
  const std::vector<size_t> tokens = {7, 251, 3, 3, 90, 18};
  const kel::test::ReferenceRun reference =
      kel::test::runReference(opened.model->file(), tokens, spec.shape);
  const auto context = opened.context();
  feed(*context, {7, 251, 3, 3});
  EXPECT_LE(relativeError(reference.logits[3], logitsOf(*context)), tolerance);
  ASSERT_TRUE(context->feedToken(90).ok());
  ASSERT_TRUE(context->feedToken(18).ok());
  EXPECT_LE(relativeError(reference.logits[5], logitsOf(*context)), tolerance);
}

class FamilySizes : public testing::TestWithParam<NamedShape> {};

TEST_P(FamilySizes, LogitsAreThoseOfAnIndependentAccount) {
  expectReferenceLogits(specOf(GetParam().shape, 32,
                               {QuantType::Q4_K, QuantType::F32, QuantType::BF16, QuantType::Q8_0}),
                        1e-5);
}

INSTANTIATE_TEST_SUITE_P(All, FamilySizes, testing::ValuesIn(kel::test::familyShapes()),
                         [](const auto& shape) { return shape.param.name; });

TEST(Family, RowsOfTheHiddenSizeMayBeOfSuperBlocks) {
  kel::ModelShape shape = kel::test::familyShape(4, 24, 4, 48, true);
  expectReferenceLogits(specOf(shape, 256, {QuantType::Q4_K, QuantType::Q5_K}), 1e-5);
}

TEST(Family, NothingNeedBeAPowerOfTwo) {
  expectReferenceLogits(specOf(kel::test::oddShape(), 36, {QuantType::F32, QuantType::BF16}), 1e-5);
}

// Bits of the logits after a prompt that is fed in the given pieces, and after a generated token.
Bits bits(const OpenedModel& opened, const ContextOptions& options,
          const std::vector<std::vector<int32_t>>& pieces) {
  const auto context = opened.context(options);
  for (const std::vector<int32_t>& piece : pieces) {
    feed(*context, piece);
  }
  Bits result;
  for (int step = 0; step < 2; ++step) {
    const Bits logits = kel::test::bitsOf(context->logits());
    result.insert(result.end(), logits.begin(), logits.end());
    if (step == 0) {
      EXPECT_TRUE(context->feedToken(9).ok());
    }
  }
  return result;
}

class FamilyBits : public testing::TestWithParam<NamedShape> {
 protected:
  const OpenedModel opened{
      specOf(GetParam().shape, GetParam().shape.headDim == 256 ? 256 : 36,
             {QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K, QuantType::BF16, QuantType::F32})};
  const std::vector<int32_t> prompt =
      kel::test::kInstrumented ? std::vector<int32_t>{1, 2, 3, 5, 8, 13}
                               : std::vector<int32_t>{1, 2, 3, 5, 8, 13, 21, 34, 55, 89, 144, 233};
  const Bits expected = bits(opened, {.positions = 32, .threads = 1}, {prompt});
};

TEST_P(FamilyBits, DoNotDependOnTheThreads) {
  for (const size_t threads : {2, 3, 7}) {
    EXPECT_EQ(expected, bits(opened, {.positions = 32, .threads = threads}, {prompt})) << threads;
  }
}

TEST_P(FamilyBits, DoNotDependOnTheInstructionSet) {
  for (const qwen35::KernelTable* table : qwen35::testedTables()) {
    EXPECT_EQ(expected, bits(opened, {.positions = 32, .threads = 2, .kernels = table}, {prompt}))
        << table->name;
  }
}

TEST_P(FamilyBits, DoNotDependOnHowThePromptIsCut) {
  for (const size_t cut : {size_t{1}, size_t{4}, prompt.size() - 1}) {
    const auto at = prompt.begin() + static_cast<std::ptrdiff_t>(cut);
    EXPECT_EQ(expected, bits(opened, {.positions = 32, .threads = 2},
                             {{prompt.begin(), at}, {at, prompt.end()}}))
        << cut;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, FamilyBits,
    testing::Values(NamedShape{"Heads24On4And48On16", kel::test::familyShape(4, 24, 4, 48, true)},
                    NamedShape{"Heads8On2And16On16", kel::test::familyShape(4, 8, 2, 16, false)},
                    NamedShape{"Odd", kel::test::oddShape()}),
    [](const auto& shape) { return shape.param.name; });

}  // namespace
}  // namespace engine
