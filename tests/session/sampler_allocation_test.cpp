// Counts what the sampler allocates. Not in sanitizer builds, which bring an operator new of their
// own.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "session/sampler.h"
#include "tests/support/allocation_counter.h"

namespace {

using kel::test::nAllocations;

TEST(GreedySampling, AllocatesNothing) {
  const std::vector<float> logits = {1, 5, 3, 2};
  std::mt19937 rng(42);
  const auto chosen = [&](float temperature, int topK) {
    return session::sampleNext(logits.data(), logits.size(), temperature, topK, 0.9F, rng);
  };
  const size_t before = nAllocations;
  const int32_t byTemperature = chosen(0.0F, 40);
  const int32_t byTopK = chosen(0.8F, 1);
  const size_t after = nAllocations;
  EXPECT_EQ(before, after);
  EXPECT_EQ(byTemperature, byTopK);
  chosen(0.8F, 40);
  EXPECT_LT(after, nAllocations) << "the counter counts";
}

}  // namespace
