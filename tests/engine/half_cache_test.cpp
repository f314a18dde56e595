// Attention caches of bfloat16: the same bits however they come about, and how far from exact ones.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "engine/context.h"
#include "tests/engine/engine_models.h"
#include "tests/qwen35/tested_tables.h"
#include "tests/support/family_shapes.h"

namespace engine {
namespace {

using qwen35::CacheType;
using testing_support::feed;
using testing_support::logitsOf;
using testing_support::OpenedModel;

const OpenedModel& familyModel() {
  static const OpenedModel opened({.hidden = 64,
                                   .ffn = 64,
                                   .vocab = 60,
                                   .shape = kel::test::familyShape(4, 24, 4, 48, true),
                                   .statesShape = true});
  return opened;
}

const OpenedModel& oddModel() {
  static const OpenedModel opened(
      {.hidden = 8, .ffn = 16, .vocab = 60, .shape = kel::test::oddShape(), .statesShape = true});
  return opened;
}

std::vector<int32_t> prompt(size_t count) {
  std::vector<int32_t> ids(count);
  for (size_t i = 0; i < count; ++i) {
    ids[i] = static_cast<int32_t>(i * 7 % 60);
  }
  return ids;
}

std::vector<float> logits(const OpenedModel& model, const ContextOptions& options,
                          const std::vector<int32_t>& ids, size_t cut) {
  const auto context = model.context(options);
  const auto at = ids.begin() + static_cast<std::ptrdiff_t>(cut);
  feed(*context, {ids.begin(), at});
  feed(*context, {at, ids.end()});
  EXPECT_TRUE(context->feedToken(3).ok());
  return logitsOf(*context);
}

TEST(HalfCache, BitsDoNotDependOnThreadsOrCuts) {
  for (const OpenedModel* model : {&familyModel(), &oddModel()}) {
    const std::vector<int32_t> ids = prompt(40);
    const ContextOptions one{.positions = 64, .threads = 1, .cacheType = CacheType::BF16};
    const std::vector<float> expected = logits(*model, one, ids, 20);
    EXPECT_NE(expected, logits(*model, {.positions = 64, .threads = 1}, ids, 20));
    ContextOptions three = one;
    three.threads = 3;
    EXPECT_EQ(expected, logits(*model, three, ids, 1));
  }
}

TEST(HalfCache, BitsDoNotDependOnTheInstructionSet) {
  const std::vector<int32_t> ids = prompt(40);
  ContextOptions options{.positions = 64, .threads = 1, .cacheType = CacheType::BF16};
  const std::vector<float> expected = logits(oddModel(), options, ids, 20);
  for (const qwen35::KernelTable* table : qwen35::testedTables()) {
    options.kernels = table;
    EXPECT_EQ(expected, logits(oddModel(), options, ids, 20)) << table->name;
  }
}

// docs/engine.md names the bound.
TEST(HalfCache, LogitsAreNearThoseOfExactCaches) {
  const std::vector<int32_t> ids = prompt(60);
  const std::vector<float> exact = logits(familyModel(), {.positions = 64}, ids, 30);
  const std::vector<float> half =
      logits(familyModel(), {.positions = 64, .cacheType = CacheType::BF16}, ids, 30);
  double difference = 0;
  double size = 0;
  for (size_t i = 0; i < exact.size(); ++i) {
    difference += std::pow(static_cast<double>(half[i]) - static_cast<double>(exact[i]), 2);
    size += std::pow(static_cast<double>(exact[i]), 2);
  }
  const double error = std::sqrt(difference / size);
  RecordProperty("relativeError", std::to_string(error));
  EXPECT_LE(error, 0.01);
  EXPECT_GE(error, 1e-6);
}

}  // namespace
}  // namespace engine
