#include "engine/sampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "qwen35/elementwise.h"

namespace engine {
namespace {

constexpr float kNever = -std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

std::map<int32_t, int> draws(const std::vector<float>& logits, const SamplerSettings& settings,
                             int count, uint64_t seed = 7) {
  Sampler sampler(seed);
  std::map<int32_t, int> drawn;
  for (int i = 0; i < count; ++i) {
    ++drawn[sampler.next(logits, settings)];
  }
  return drawn;
}

TEST(EngineSampler, GreedyTakesTheLowestOfTheBest) {
  Sampler sampler(1);
  EXPECT_EQ(1, sampler.next(std::vector<float>{1, 5, 5, 2}, {}));
  EXPECT_EQ(1, sampler.next(std::vector<float>{1, 5, 5, 2}, {.temperature = 9, .topK = 1}));
}

TEST(EngineSampler, GreedyChoicesDrawNoRandomNumber) {
  const std::vector<float> logits(50, 1.0F);
  Sampler drawing(3);
  Sampler choosing(3);
  choosing.next(logits, {});
  choosing.next(logits, {.temperature = 1, .topK = 1});
  EXPECT_EQ(drawing.next(logits, {.temperature = 1}), choosing.next(logits, {.temperature = 1}));
}

TEST(EngineSampler, DrawsInProportionToTheExponentials) {
  // 1 : 2 : 5 at temperature 2.
  const std::vector<float> logits = {0.0F, 2 * std::log(2.0F), kNever, 2 * std::log(5.0F)};
  const std::map<int32_t, int> drawn = draws(logits, {.temperature = 2}, 80000);
  EXPECT_NEAR(10000, drawn.at(0), 500);
  EXPECT_NEAR(20000, drawn.at(1), 700);
  EXPECT_NEAR(50000, drawn.at(3), 900);
  EXPECT_EQ(0U, drawn.count(2));
}

TEST(EngineSampler, TopKDrawsAmongTheBest) {
  const std::vector<float> logits = {1, 3, 2, 3, 0};
  EXPECT_EQ(2U, draws(logits, {.temperature = 5, .topK = 2}, 2000).size());
  const std::map<int32_t, int> three = draws(logits, {.temperature = 5, .topK = 3}, 2000);
  EXPECT_EQ(3U, three.size());
  EXPECT_EQ(1U, three.count(2));
  EXPECT_EQ(5U, draws(logits, {.temperature = 5, .topK = 99}, 5000).size());
  EXPECT_EQ(5U, draws(logits, {.temperature = 5, .topK = -1}, 5000).size());
}

// Of equal logits the lower ids are the better ones.
TEST(EngineSampler, EqualLogitsAreRankedById) {
  const std::vector<float> logits(30, 1.0F);
  for (const auto& [id, times] : draws(logits, {.temperature = 1, .topK = 4}, 2000)) {
    EXPECT_LT(id, 4);
  }
}

TEST(EngineSampler, TopPKeepsTheFewestThatHaveTheShare) {
  // Shares of 0.5, 0.25, 0.15, 0.1.
  const std::vector<float> logits = {std::log(0.1F), std::log(0.5F), std::log(0.25F),
                                     std::log(0.15F)};
  const auto kept = [&](float topP) {
    return draws(logits, {.temperature = 1, .topP = topP}, 4000).size();
  };
  EXPECT_EQ(1U, kept(0.4F));
  EXPECT_EQ(2U, kept(0.6F));
  EXPECT_EQ(2U, kept(0.74F));
  EXPECT_EQ(3U, kept(0.8F));
  EXPECT_EQ(4U, kept(0.95F));
  EXPECT_EQ(4U, kept(1.0F));
  // Of what top-k left.
  EXPECT_EQ(1U, draws(logits, {.temperature = 1, .topK = 2, .topP = 0.6F}, 4000).size());
}

TEST(EngineSampler, ASeedFixesTheTokensOnEveryMachine) {
  std::vector<float> logits(1000);
  for (size_t i = 0; i < logits.size(); ++i) {
    logits[i] = std::sin(static_cast<float>(i));
  }
  Sampler sampler(42);
  std::vector<int32_t> drawn;
  for (int i = 0; i < 6; ++i) {
    drawn.push_back(sampler.next(logits, {.temperature = 0.7F, .topK = 200, .topP = 0.9F}));
  }
  sampler.seed(42);
  for (const int32_t token : drawn) {
    EXPECT_EQ(token, sampler.next(logits, {.temperature = 0.7F, .topK = 200, .topP = 0.9F}));
  }
  EXPECT_EQ((std::vector<int32_t>{756, 642, 756, 134, 900, 90}), drawn);
}

// One output of the standard's generator for each draw, its upper 53 bits as a fraction.
TEST(EngineSampler, TheRandomNumbersAreThoseOfTheStandard) {
  const std::vector<float> logits(1 << 10, 0.0F);
  Sampler sampler(5);
  std::mt19937_64 standard(5);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(static_cast<int32_t>(standard() >> 54), sampler.next(logits, {.temperature = 1}));
  }
}

TEST(EngineSampler, ASumReachesItsShareExactly) {
  // Weights of 1, 1, 1 and 1: a half is reached by the second.
  const std::vector<float> logits(4, 3.0F);
  EXPECT_EQ(2U, draws(logits, {.temperature = 1, .topP = 0.5F}, 2000).size());
  EXPECT_EQ(3U, draws(logits, {.temperature = 1, .topP = 0.5000001F}, 2000).size());
  // 1, a half and a half: by the first.
  const float half = -0.6931472F;
  ASSERT_EQ(0.5F, qwen35::exponential(half));
  EXPECT_EQ(1U, draws({half, 0, half}, {.temperature = 1, .topP = 0.5F}, 2000).size());
}

TEST(EngineSampler, MinPKeepsWhatComesNearTheBest) {
  // Shares of 0.1, 0.5, 0.25, 0.15: of the best one's 0.2, 1, 0.5 and 0.3.
  const std::vector<float> logits = {std::log(0.1F), std::log(0.5F), std::log(0.25F),
                                     std::log(0.15F)};
  const auto kept = [&](float minP) {
    return draws(logits, {.temperature = 1, .minP = minP}, 4000).size();
  };
  EXPECT_EQ(4U, kept(0));
  EXPECT_EQ(4U, kept(0.19F));
  EXPECT_EQ(3U, kept(0.21F));
  EXPECT_EQ(2U, kept(0.31F));
  EXPECT_EQ(1U, kept(0.51F));
  EXPECT_EQ(2U, draws(std::vector<float>{1, 2, 2}, {.temperature = 1, .minP = 1}, 200).size());
  // The temperature comes first: at 2 the ratios are the roots.
  EXPECT_EQ(3U, draws(logits, {.temperature = 2, .minP = 0.5F}, 4000).size());
}

// The share is one of what top-k left, tokens that min-p drops among it.
TEST(EngineSampler, CutsFollowOneAnother) {
  // Weights of 4, 2, 1, 1.
  const std::vector<float> logits = {std::log(4.0F), std::log(2.0F), 0, 0};
  EXPECT_EQ(2U, draws(logits, {.temperature = 1, .topP = 0.74F}, 2000).size());
  EXPECT_EQ(2U, draws(logits, {.temperature = 1, .topK = 3, .topP = 0.85F}, 2000).size());
  // Were min-p first, 4 of 4 and 2 would do for 0.6.
  EXPECT_EQ(2U, draws(logits, {.temperature = 1, .topP = 0.6F, .minP = 0.5F}, 2000).size());
}

TEST(EngineSampler, BiasesAddToLogits) {
  Sampler sampler(1);
  const std::vector<float> logits = {1, 2, 3};
  EXPECT_EQ(0, sampler.next(logits, {.logitBias = {{0, 2.5F}}}));
  EXPECT_EQ(1, sampler.next(logits, {.logitBias = {{2, -1.5F}}}));
  EXPECT_EQ(1, sampler.next(logits, {.logitBias = {{2, kNever}}}));
  EXPECT_EQ(2, sampler.next(logits, {.logitBias = {{-1, 99}, {3, 99}}}));
  const auto drawn =
      draws({0, 0, 0}, {.temperature = 1, .logitBias = {{0, std::log(3.0F)}}}, 50000);
  EXPECT_NEAR(30000, drawn.at(0), 600);
}

TEST(EngineSampler, AMaskBansTokens) {
  TokenMask mask(70);
  mask.ban(69);
  mask.ban(3);
  std::vector<float> logits(70, 0.0F);
  logits[69] = 9;
  logits[3] = 8;
  logits[68] = 7;
  Sampler sampler(1);
  EXPECT_EQ(68, sampler.next(logits, {.mask = &mask}));
  EXPECT_EQ(68U, draws(logits, {.temperature = 1000, .mask = &mask}, 5000).size());
  mask.setAll(false);
  mask.allow(5);
  EXPECT_EQ(5, sampler.next(logits, {.mask = &mask}));
  EXPECT_EQ(5, sampler.next(logits, {.temperature = 1, .logitBias = {{6, 100}}, .mask = &mask}));
  // Ids that a mask lacks are banned.
  const TokenMask small(2);
  EXPECT_EQ(0, sampler.next(logits, {.mask = &small}));
}

TEST(EngineSampler, WhereNothingMayBeChosenThereIsNoToken) {
  const std::vector<float> logits = {1, 2};
  const TokenMask none(2, false);
  for (const float temperature : {0.0F, 1.0F}) {
    Sampler sampler(1);
    EXPECT_EQ(kNoToken, sampler.next(logits, {.temperature = temperature, .mask = &none}));
    EXPECT_EQ(kNoToken, sampler.next(logits, {.temperature = temperature,
                                              .logitBias = {{0, kNever}, {1, kNever}}}));
    EXPECT_EQ(kNoToken,
              sampler.next(std::vector<float>{kNever, kNever}, {.temperature = temperature}));
    EXPECT_EQ(kNoToken, sampler.next(std::vector<float>{kNan}, {.temperature = temperature}));
    EXPECT_EQ(kNoToken, sampler.next({}, {.temperature = temperature}));
  }
}

TEST(EngineSampler, NaNsAreNeverChosen) {
  const std::vector<float> logits = {kNan, 1, kNan, 2, kNan};
  Sampler sampler(1);
  EXPECT_EQ(3, sampler.next(logits, {}));
  EXPECT_EQ(2U, draws(logits, {.temperature = 9}, 500).size());
  EXPECT_EQ(2U, draws(logits, {.temperature = 9, .topK = 4, .topP = 0.99F}, 500).size());
}

TEST(EngineSampler, InfiniteLogitsShareEverything) {
  const std::vector<float> logits = {-kNever, 1, -kNever, 2};
  const auto drawn = draws(logits, {.temperature = 1}, 4000);
  EXPECT_EQ(2U, drawn.size());
  EXPECT_NEAR(2000, drawn.at(2), 200);
}

// A tenth of a millionth of a degree, and the greatest there is.
TEST(EngineSampler, ExtremeTemperatures) {
  const std::vector<float> logits = {1, 2, 1.999F};
  EXPECT_EQ(1U, draws(logits, {.temperature = 1e-7F}, 500).size());
  EXPECT_EQ(1U, draws(logits, {.temperature = 1e-45F, .topP = 0.5F}, 500).size());
  EXPECT_EQ(3U, draws(logits, {.temperature = 3e38F}, 500).size());
}

// Greedy choices show what the logits are after the penalties: a rival's logit is just below or
// just above.
void expectPenalised(Sampler& sampler, const SamplerSettings& settings, int32_t id, float before,
                     float after) {
  std::vector<float> logits(100, kNever);
  logits[static_cast<size_t>(id)] = before;
  logits[99] = after - 0.001F;
  EXPECT_EQ(id, sampler.next(logits, settings)) << before;
  logits[99] = after + 0.001F;
  EXPECT_EQ(99, sampler.next(logits, settings)) << before;
}

TEST(EngineSampler, PresenceAndFrequencyCountTheReply) {
  Sampler sampler(1);
  const std::vector<int32_t> prompt = {7, 7};
  sampler.beginReply(prompt);
  const SamplerSettings settings = {.presencePenalty = 0.5F, .frequencyPenalty = 0.25F};
  expectPenalised(sampler, settings, 7, 2, 2);
  sampler.accept(7);
  expectPenalised(sampler, settings, 7, 2, 1.25F);
  sampler.accept(8);
  sampler.accept(7);
  expectPenalised(sampler, settings, 7, 2, 1);
  expectPenalised(sampler, settings, 7, -2, -3);
  expectPenalised(sampler, settings, 8, 2, 1.25F);
  expectPenalised(sampler, {.presencePenalty = 0.5F}, 7, 2, 1.5F);
  expectPenalised(sampler, {.frequencyPenalty = -0.5F}, 7, 2, 3);
  // The next reply begins anew.
  sampler.beginReply({});
  expectPenalised(sampler, settings, 7, 2, 2);
}

TEST(EngineSampler, RepetitionCountsPromptAndReply) {
  Sampler sampler(1);
  const std::vector<int32_t> prompt = {5, 6};
  sampler.beginReply(prompt);
  sampler.accept(7);
  sampler.accept(7);
  const SamplerSettings settings = {.repetitionPenalty = 2};
  for (const int32_t id : {5, 6, 7}) {
    expectPenalised(sampler, settings, id, 3, 1.5F);
    expectPenalised(sampler, settings, id, 0.5F, 0.25F);
    expectPenalised(sampler, settings, id, -3, -6);
  }
  expectPenalised(sampler, settings, 8, 3, 3);
  expectPenalised(sampler, {.repetitionPenalty = 0.5F}, 5, 3, 6);
  sampler.forget();
  const std::vector<int32_t> another = {8, 8, 8, 8, 5};
  sampler.beginReply(another);
  expectPenalised(sampler, settings, 5, 3, 1.5F);
  expectPenalised(sampler, settings, 7, 3, 3);
}

TEST(EngineSampler, TheWindowHoldsTheLastTokens) {
  Sampler sampler(1);
  const std::vector<int32_t> prompt = {5, 6};
  sampler.beginReply(prompt);
  sampler.accept(7);
  const auto expectInWindow = [&](int32_t window, const std::vector<int32_t>& ids) {
    for (const int32_t id : {5, 6, 7, 8}) {
      const bool isCounted = std::count(ids.begin(), ids.end(), id) != 0;
      expectPenalised(sampler, {.repetitionPenalty = 2, .repetitionWindow = window}, id, 4,
                      isCounted ? 2.0F : 4.0F);
    }
  };
  expectInWindow(1, {7});
  expectInWindow(2, {6, 7});
  expectInWindow(9, {5, 6, 7});
  sampler.accept(8);
  expectInWindow(2, {7, 8});
  expectInWindow(0, {5, 6, 7, 8});
}

TEST(EngineSampler, AdjustmentsHaveAnOrder) {
  Sampler sampler(1);
  const std::vector<int32_t> prompt = {5};
  sampler.beginReply(prompt);
  sampler.accept(5);
  // ((-1 + 4) / 2) - (0.25 + 0.5)
  expectPenalised(sampler,
                  {.presencePenalty = 0.5F,
                   .frequencyPenalty = 0.25F,
                   .repetitionPenalty = 2,
                   .logitBias = {{5, 4}}},
                  5, -1, 0.75F);
}

TEST(EngineSampler, TokensThatLogitsLackAreNotPenalised) {
  Sampler sampler(1);
  const std::vector<int32_t> prompt = {-1, 100, 2000000000};
  sampler.beginReply(prompt);
  sampler.accept(100);
  sampler.accept(-5);
  EXPECT_EQ(1,
            sampler.next(std::vector<float>{1, 2}, {.presencePenalty = 1, .repetitionPenalty = 2}));
}

// The choice by its definition: everything is sorted, and sums go through the sorted list. Number:
// of weights and their sums.
template <typename Number, typename Weight>
int32_t choiceByDefinition(const std::vector<float>& logits, const SamplerSettings& settings,
                           const Weight& weightOf, uint64_t randomNumber) {
  std::vector<int32_t> order(logits.size());
  for (size_t i = 0; i < logits.size(); ++i) {
    order[i] = static_cast<int32_t>(i);
  }
  const auto logitOf = [&](int32_t id) { return logits[static_cast<size_t>(id)]; };
  std::stable_sort(order.begin(), order.end(),
                   [&](int32_t a, int32_t b) { return logitOf(a) > logitOf(b); });
  if (settings.topK > 0) {
    order.resize(std::min(order.size(), static_cast<size_t>(settings.topK)));
  }
  const float best = logitOf(order.front());
  const auto weight = [&](int32_t id) { return weightOf(logitOf(id), best); };
  const auto total = [&] {
    Number sum{};
    for (const int32_t id : order) {
      sum += weight(id);
    }
    return static_cast<double>(sum);
  };
  if (settings.topP < 1) {
    const double share = static_cast<double>(settings.topP) * total();
    Number sum{};
    size_t kept = 0;
    while (static_cast<double>(sum) < share) {
      sum += weight(order[kept++]);
    }
    order.resize(kept);
  }
  const double least = static_cast<double>(settings.minP) * static_cast<double>(weight(order[0]));
  std::erase_if(order, [&](int32_t id) { return static_cast<double>(weight(id)) < least; });
  std::sort(order.begin(), order.end());
  const double drawn = static_cast<double>(randomNumber >> 11) * 0x1p-53 * total();
  Number sum{};
  for (const int32_t id : order) {
    sum += weight(id);
    if (static_cast<double>(sum) > drawn) {
      return id;
    }
  }
  return kNoToken;
}

std::vector<SamplerSettings> manySettings() {
  std::vector<SamplerSettings> all;
  for (const float temperature : {0.2F, 0.7F, 1.0F, 3.0F}) {
    for (const int32_t topK : {0, 2, 20, 700}) {
      for (const float topP : {1.0F, 0.95F, 0.5F, 0.01F}) {
        for (const float minP : {0.0F, 0.05F, 0.6F}) {
          all.push_back({.temperature = temperature, .topK = topK, .topP = topP, .minP = minP});
        }
      }
    }
  }
  return all;
}

// As a model gives them: a few stand out of thousands.
std::vector<float> peakedLogits(size_t count, std::mt19937_64& random) {
  std::normal_distribution<float> bulk(0, 2);
  std::vector<float> logits(count);
  for (float& logit : logits) {
    logit = bulk(random);
  }
  for (size_t i = 0; i < 12; ++i) {
    logits[random() % count] += 6;
  }
  return logits;
}

// Against double precision from beginning to end.
TEST(EngineSampler, DrawsWhatTheDefinitionDrawsInDoublePrecision) {
  std::mt19937_64 random(11);
  for (const SamplerSettings& settings : manySettings()) {
    const std::vector<float> logits = peakedLogits(3000, random);
    const auto weight = [&](float logit, float best) {
      return std::exp((static_cast<double>(logit) - static_cast<double>(best)) /
                      static_cast<double>(settings.temperature));
    };
    Sampler sampler(5);
    std::mt19937_64 numbers(5);
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(choiceByDefinition<double>(logits, settings, weight, numbers()),
                sampler.next(logits, settings))
          << settings.temperature << " " << settings.topK << " " << settings.topP << " "
          << settings.minP;
    }
  }
}

// Many equal logits, so that cuts fall among equals; to the last unit.
TEST(EngineSampler, DrawsWhatTheDefinitionDrawsAmongEquals) {
  std::mt19937_64 random(12);
  for (const SamplerSettings& settings : manySettings()) {
    std::vector<float> logits = peakedLogits(1500, random);
    for (float& logit : logits) {
      logit = std::round(logit);
    }
    const auto weight = [&](float logit, float best) {
      const double exponential =
          static_cast<double>(qwen35::exponential((logit - best) / settings.temperature));
      return static_cast<uint64_t>(exponential * 0x1p44);
    };
    Sampler sampler(6);
    std::mt19937_64 numbers(6);
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(choiceByDefinition<uint64_t>(logits, settings, weight, numbers()),
                sampler.next(logits, settings))
          << settings.temperature << " " << settings.topK << " " << settings.topP << " "
          << settings.minP;
    }
  }
}

// All of one class of weights, and none but the best above the last class.
TEST(EngineSampler, SharesOfNarrowAndOfWideLogits) {
  std::vector<float> logits(500);
  for (size_t i = 0; i < logits.size(); ++i) {
    logits[i] = static_cast<float>((i * 237) % 500) * 1e-7F;
  }
  const auto share = [&](float topP) {
    return draws(logits, {.temperature = 1, .topP = topP}, 1000).size();
  };
  EXPECT_EQ(5U, share(0.01F));
  for (float& logit : logits) {
    logit *= 1e10F;
  }
  EXPECT_EQ(1U, share(0.9999F));
}

}  // namespace
}  // namespace engine
