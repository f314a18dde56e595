// What a reset promises of state that something other than the forward pass wrote.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/qwen35/compute_headers.h"
#include "tests/support/bound_views.h"

namespace {

using qwen35::Layer;
using qwen35::Model;

constexpr size_t kContext = 5;

// Bound models without weights: only their state is used.
class ResetRule : public ::testing::Test {
 protected:
  ResetRule() {
    EXPECT_TRUE(qwen35::initLayers(views.loader, m, kContext));
    EXPECT_TRUE(qwen35::bindModel(views.loader, m, kContext));
  }

  static size_t nonZeros(const Layer& layer) {
    size_t count = 0;
    for (const auto* buffer : {&layer.ssmState, &layer.convState, &layer.kCache, &layer.vCache}) {
      count += buffer->size() - static_cast<size_t>(std::count(buffer->begin(), buffer->end(), 0));
    }
    return count;
  }

  void expectEmptyAfterReset() {
    qwen35::resetModel(m);
    for (size_t l = 0; l < m.layers.size(); ++l) {
      EXPECT_EQ(0u, m.layers[l].pos) << l;
      EXPECT_EQ(0u, nonZeros(m.layers[l])) << l;
    }
  }

  kel::test::BoundViews views;
  Model m;
};

TEST_F(ResetRule, RecurrentStateOfALayerThatTookNoTokenIsCleared) {
  ASSERT_TRUE(m.layers[0].isLinear);
  ASSERT_TRUE(m.layers[1].isLinear);
  m.layers[0].ssmState[m.layers[0].ssmState.size() - 1] = 1.0f;
  m.layers[1].convState[0] = 1.0f;
  expectEmptyAfterReset();
}

TEST_F(ResetRule, CacheRowsBeyondThePositionAreCleared) {
  ASSERT_FALSE(m.layers[3].isLinear);
  ASSERT_FALSE(m.layers[7].isLinear);
  m.layers[3].kCache[m.layers[3].kCache.size() - 1] = 1.0f;
  m.layers[7].vCache[m.layers[7].vCache.size() / 2] = 1.0f;
  expectEmptyAfterReset();
}

TEST_F(ResetRule, APositionThatSomethingElseSetIsCleared) {
  for (Layer& layer : m.layers) {
    layer.pos = 3;
  }
  expectEmptyAfterReset();
}

TEST_F(ResetRule, EveryFloatOfEveryLayerIsCleared) {
  for (Layer& layer : m.layers) {
    for (auto* buffer : {&layer.ssmState, &layer.convState, &layer.kCache, &layer.vCache}) {
      std::fill(buffer->begin(), buffer->end(), 2.0f);
    }
    layer.pos = layer.isLinear ? 0 : 1;
  }
  expectEmptyAfterReset();
}

}  // namespace
