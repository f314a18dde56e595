#include "session/sampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <thread>
#include <vector>

namespace {

using session::sampleNext;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// The 32-bit Mersenne Twister by its published recurrence. "Mersenne Twister: A 623-Dimensionally
// Equidistributed Uniform Pseudo-Random Number Generator" (1998), with the 2002 initialisation.
class TwisterByTheBook {
 public:
  explicit TwisterByTheBook(uint32_t seed) {
    state[0] = seed;
    for (uint32_t i = 1; i < kWords; ++i) {
      state[i] = 1812433253U * (state[i - 1] ^ (state[i - 1] >> 30U)) + i;
    }
  }

  uint32_t next() {
    const size_t i = count++ % kWords;
    const uint32_t y = (state[i] & 0x80000000U) | (state[(i + 1) % kWords] & 0x7FFFFFFFU);
    state[i] = state[(i + 397) % kWords] ^ (y >> 1U) ^ ((y & 1U) != 0 ? 0x9908B0DFU : 0U);
    uint32_t out = state[i];
    out ^= out >> 11U;
    out ^= (out << 7U) & 0x9D2C5680U;
    out ^= (out << 15U) & 0xEFC60000U;
    return out ^ (out >> 18U);
  }

  // 53 bits and more from two outputs, the first one low.
  double uniform() {
    const uint64_t low = next();
    const uint64_t high = next();
    return std::min(std::ldexp(static_cast<double>(high << 32U | low), -64), 1.0 - 0x1p-53);
  }

 private:
  static constexpr size_t kWords = 624;
  std::array<uint32_t, kWords> state{};
  size_t count = 0;
};

std::vector<float> spreadLogits(size_t n) {
  std::vector<float> logits(n);
  for (size_t i = 0; i < n; ++i) {
    logits[i] = static_cast<float>((i * 37) % n) * 0.08F - 3.0F;
  }
  return logits;
}

int32_t chosen(const std::vector<float>& logits, float temperature, int topK, float topP,
               std::mt19937& rng) {
  return sampleNext(logits.data(), logits.size(), temperature, topK, topP, rng);
}

// Greedy path.

TEST(GreedySampling, TemperatureZeroTakesTheFirstLargestLogit) {
  const std::vector<float> logits = {1, 5, 2, 5, -1};
  for (const int topK : {-1, 0, 1, 3, 100}) {
    for (const float topP : {0.0F, 0.5F, 1.0F}) {
      std::mt19937 rng(42);
      EXPECT_EQ(1, chosen(logits, 0.0F, topK, topP, rng));
      EXPECT_EQ(1, chosen(logits, -1.0F, topK, topP, rng));
      EXPECT_EQ(std::mt19937(42), rng);
    }
  }
}

TEST(GreedySampling, TopKOneIsGreedyAndDrawsNothing) {
  std::mt19937 rng(42);
  EXPECT_EQ(2, chosen({0, 1, 9, 9}, 0.8F, 1, 0.9F, rng));
  EXPECT_EQ(std::mt19937(42), rng);
}

TEST(GreedySampling, OneOrNoLogitGivesZero) {
  std::mt19937 rng(42);
  EXPECT_EQ(0, sampleNext(nullptr, 0, 0.0F, 0, 1.0F, rng));
  EXPECT_EQ(0, chosen({-3}, 0.0F, 0, 1.0F, rng));
}

TEST(GreedySampling, NotANumberNeverBeatsTheLeader) {
  std::mt19937 rng(42);
  EXPECT_EQ(2, chosen({1, kNan, 3}, 0.0F, 0, 1.0F, rng));
  EXPECT_EQ(0, chosen({kNan, 2, 3}, 0.0F, 0, 1.0F, rng));
}

// Sampling path.

TEST(Sampling, PublishedOutputOfTheGenerator) {
  TwisterByTheBook twister(5489);
  std::mt19937 engine(5489);
  uint32_t last = 0;
  for (int i = 0; i < 10000; ++i) {
    last = twister.next();
    ASSERT_EQ(last, engine());
  }
  EXPECT_EQ(4123659995U, last);
}

TEST(Sampling, TopPBelowOneLeavesTheBestTokenYetDrawsTwice) {
  const std::vector<float> logits = spreadLogits(100);
  const auto best =
      static_cast<int32_t>(std::max_element(logits.begin(), logits.end()) - logits.begin());
  for (const float topP : {1e-6F, 0.5F, 0.9F, 0.999999F}) {
    std::mt19937 rng(42);
    std::mt19937 twoOn(42);
    for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(best, chosen(logits, 0.8F, 0, topP, rng));
      twoOn.discard(2);
      ASSERT_EQ(twoOn, rng);
    }
  }
}

TEST(Sampling, EveryRangeDrawsTwice) {
  const std::vector<float> logits = spreadLogits(100);
  for (const int topK : {-5, 0, 2, 40, 100, 1000}) {
    std::mt19937 rng(1);
    std::mt19937 twoOn(1);
    chosen(logits, 0.8F, topK, 1.0F, rng);
    twoOn.discard(2);
    EXPECT_EQ(twoOn, rng) << topK;
  }
}

// The whole choice computed again: order by selection, weights, draw by the book, walk.
int32_t sampleByTheBook(const std::vector<float>& logits, float temperature, size_t k,
                        TwisterByTheBook& twister) {
  std::vector<int32_t> order(logits.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](int32_t a, int32_t b) {
    return logits[static_cast<size_t>(a)] > logits[static_cast<size_t>(b)];
  });
  order.resize(k);
  const float scale = 1.0F / temperature;
  const auto score = [&](int32_t token) {
    return static_cast<double>(logits[static_cast<size_t>(token)] * scale);
  };
  std::vector<double> weights;
  for (const int32_t token : order) {
    weights.push_back(std::exp(score(token) - score(order[0])));
  }
  double rest = twister.uniform() * std::accumulate(weights.begin(), weights.end(), 0.0);
  for (size_t i = 0; i < k; ++i) {
    rest -= weights[i];
    if (rest <= 0) {
      return order[i];
    }
  }
  return order.back();
}

TEST(Sampling, ChoicesFollowTheGeneratorsPublishedSequence) {
  const std::vector<float> logits = spreadLogits(100);  // all different
  for (const uint32_t seed : {42U, 5489U}) {
    TwisterByTheBook twister(seed);
    std::mt19937 rng(seed);
    for (int i = 0; i < 2000; ++i) {
      const int32_t expected = sampleByTheBook(logits, 0.8F, 40, twister);
      ASSERT_EQ(expected, chosen(logits, 0.8F, 40, 1.0F, rng)) << "seed " << seed << " draw " << i;
    }
  }
}

TEST(Sampling, TopPOutsideTheOpenIntervalLeavesTheRange) {
  const std::vector<float> logits = spreadLogits(100);
  for (const float topP : {-1.0F, 0.0F, 1.0F, 2.0F, kNan}) {
    TwisterByTheBook twister(42);
    std::mt19937 rng(42);
    for (int i = 0; i < 200; ++i) {
      const int32_t expected = sampleByTheBook(logits, 0.8F, 40, twister);
      ASSERT_EQ(expected, chosen(logits, 0.8F, 40, topP, rng)) << topP;
    }
  }
}

TEST(Sampling, TopKBeyondTheVocabularyMeansAll) {
  const std::vector<float> logits = spreadLogits(100);
  for (const int topK : {-1, 0, 100, 101, std::numeric_limits<int>::max()}) {
    TwisterByTheBook twister(7);
    std::mt19937 rng(7);
    for (int i = 0; i < 200; ++i) {
      const int32_t expected = sampleByTheBook(logits, 3.0F, 100, twister);
      ASSERT_EQ(expected, chosen(logits, 3.0F, topK, 1.0F, rng)) << topK;
    }
  }
}

TEST(Sampling, SameSeedSameChoices) {
  const std::vector<float> logits = spreadLogits(1000);
  std::mt19937 first(123);
  std::mt19937 second(123);
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(chosen(logits, 1.0F, 0, 1.0F, first), chosen(logits, 1.0F, 0, 1.0F, second));
  }
}

TEST(Sampling, TwoGeneratorsOnTwoThreadsKeepTheirOwnSequences) {
  constexpr uint32_t kSeeds[] = {42, 43};
  constexpr size_t kDraws = 500;
  const std::vector<float> logits = spreadLogits(1000);
  const auto sequence = [&logits](uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<int32_t> tokens(kDraws);
    for (int32_t& token : tokens) {
      token = chosen(logits, 5.0F, 40, 1.0F, rng);
    }
    return tokens;
  };
  std::vector<int32_t> together[2];
  std::thread other([&] { together[1] = sequence(kSeeds[1]); });
  together[0] = sequence(kSeeds[0]);
  other.join();
  EXPECT_NE(together[0], together[1]);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(sequence(kSeeds[i]), together[i]);
  }
}

TEST(Sampling, FrequenciesFitTheSoftmaxOfTheBestForty) {
  constexpr size_t kTopK = 40;
  constexpr int kDraws = 200000;
  constexpr float kTemperature = 0.8F;
  const std::vector<float> logits = spreadLogits(100);
  std::vector<size_t> order(logits.size());
  std::iota(order.begin(), order.end(), 0U);
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return logits[a] > logits[b]; });

  std::vector<int> counts(logits.size());
  std::mt19937 rng(42);
  for (int i = 0; i < kDraws; ++i) {
    ++counts[static_cast<size_t>(chosen(logits, kTemperature, kTopK, 1.0F, rng))];
  }

  double mass = 0;
  for (size_t i = 0; i < kTopK; ++i) {
    mass += std::exp(static_cast<double>(logits[order[i]] - logits[order[0]]) / 0.8);
  }
  double chiSquare = 0;
  for (size_t i = 0; i < kTopK; ++i) {
    const double expected =
        kDraws * std::exp(static_cast<double>(logits[order[i]] - logits[order[0]]) / 0.8) / mass;
    ASSERT_GT(expected, 5.0);
    const double difference = counts[order[i]] - expected;
    chiSquare += difference * difference / expected;
  }
  for (size_t i = kTopK; i < logits.size(); ++i) {
    EXPECT_EQ(0, counts[order[i]]);
  }
  // 39 degrees of freedom: 72.05 is exceeded once in a thousand seeds.
  EXPECT_LT(chiSquare, 72.05);
}

TEST(Sampling, NoLogitsGiveZero) {
  std::mt19937 rng(42);
  EXPECT_EQ(0, sampleNext(nullptr, 0, 0.8F, 40, 1.0F, rng));
}

TEST(Sampling, NotANumberIsNeverChosenWhileAnythingElseIs) {
  std::vector<float> logits(500, kNan);
  for (size_t i = 0; i < logits.size(); i += 7) {
    logits[i] = static_cast<float>(i) * 0.001F;
  }
  std::mt19937 rng(42);
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(0, chosen(logits, 0.8F, 0, 1.0F, rng) % 7);
  }
}

TEST(Sampling, ExtremeLogitsGiveATokenOfTheVocabulary) {
  std::mt19937 rng(42);
  std::vector<float> logits(300);
  for (const float temperature : {0.8F, 1e-45F, kInf, kNan}) {
    for (int round = 0; round < 200; ++round) {
      for (float& logit : logits) {
        constexpr float kExtremes[] = {kNan, kInf, -kInf, 0.0F, 3e38F, -3e38F, 1.0F};
        logit = kExtremes[rng() % std::size(kExtremes)];
      }
      const int32_t token = chosen(logits, temperature, round % 50, 1.0F, rng);
      ASSERT_GE(token, 0);
      ASSERT_LT(token, 300);
    }
  }
}

// The rule as a plain scan.
int32_t scanned(const std::vector<float>& logits) {
  size_t best = 0;
  for (size_t i = 1; i < logits.size(); ++i) {
    best = logits[i] > logits[best] ? i : best;
  }
  return static_cast<int32_t>(best);
}

TEST(LargestLogit, IsTheFirstOfTheLargestForAnyValues) {
  const float odd[] = {0.0f, -0.0f, NAN, INFINITY, -INFINITY, 1.0f, 1.0f, -1e-42f};
  std::mt19937 generator(5);
  for (size_t n = 0; n < 200; ++n) {
    for (int round = 0; round < 20; ++round) {
      std::vector<float> logits(n);
      for (float& logit : logits) {
        logit = odd[generator() % std::size(odd)];
      }
      EXPECT_EQ(scanned(logits), session::largestLogit(logits.data(), n)) << n;
    }
  }
}

}  // namespace
