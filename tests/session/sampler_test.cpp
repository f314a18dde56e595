#include "session/sampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <sstream>
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

// The walk over scores in falling order: an index into them.
template <typename Exponential>
size_t walkByTheBook(const std::vector<float>& scores, double uniform, Exponential&& exponential) {
  std::vector<double> weights;
  weights.reserve(scores.size());
  for (const float score : scores) {
    weights.push_back(exponential(static_cast<double>(score) - static_cast<double>(scores[0])));
  }
  double rest = uniform * std::accumulate(weights.begin(), weights.end(), 0.0);
  for (size_t i = 0; i < weights.size(); ++i) {
    rest -= weights[i];
    if (rest <= 0) {
      return i;
    }
  }
  return weights.size() - 1;
}

double inDouble(double x) {
  return std::exp(x);
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
  std::vector<float> scores;
  scores.reserve(k);
  for (const int32_t token : order) {
    scores.push_back(logits[static_cast<size_t>(token)] * scale);
  }
  return order[walkByTheBook(scores, twister.uniform(), inDouble)];
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

// Among equal scores the token depends on how the sort moves its elements: the order is that of the
// standard sort over pairs of score and token, compared by falling score.
TEST(Sampling, EqualScoresComeInTheOrderOfTheStandardSort) {
  struct Ranked {
    float score;
    int32_t token;
  };
  for (const size_t n : {17u, 100u, 5000u}) {
    std::vector<float> logits(n);
    std::vector<Ranked> ranked;
    for (size_t i = 0; i < n; ++i) {
      logits[i] = static_cast<float>(i * 7 % 3);
      ranked.push_back({logits[i], static_cast<int32_t>(i)});
    }
    std::sort(ranked.begin(), ranked.end(),
              [](const Ranked& a, const Ranked& b) { return a.score > b.score; });
    std::vector<float> scores;
    scores.reserve(n);
    for (const Ranked& each : ranked) {
      scores.push_back(each.score);
    }
    TwisterByTheBook twister(42);
    std::mt19937 rng(42);
    for (int i = 0; i < 100; ++i) {
      const size_t place = walkByTheBook(scores, twister.uniform(), inDouble);
      ASSERT_EQ(ranked[place].token, chosen(logits, 1.0F, 0, 1.0F, rng)) << n << " draw " << i;
    }
  }
}

// Two neighbouring floats whose quotients by the temperature differ while their products with its
// reciprocal are one number, and two of which the reverse is true. A top-p below 1 shows which
// token leads; of two equal scores it is the one of the lower index.
TEST(Sampling, ScoresAreProductsWithTheReciprocalOfTheTemperature) {
  constexpr float kTemperature = 3.0F;
  constexpr float kReciprocal = 1.0F / kTemperature;
  std::mt19937 rng(42);

  constexpr float kLow = 0x1.800004p+0F;
  constexpr float kHigh = 0x1.800006p+0F;
  static_assert(kLow / kTemperature < kHigh / kTemperature);
  static_assert(kLow * kReciprocal == kHigh * kReciprocal);
  EXPECT_EQ(0, chosen({kLow, kHigh}, kTemperature, 0, 0.5F, rng));

  constexpr float kLower = 0x1.800002p+0F;
  constexpr float kHigher = 0x1.800004p+0F;
  static_assert(kLower / kTemperature == kHigher / kTemperature);
  static_assert(kLower * kReciprocal < kHigher * kReciprocal);
  EXPECT_EQ(1, chosen({kLower, kHigher}, kTemperature, 0, 0.5F, rng));
}

// Two tokens whose scores differ by as much as makes the draw a close call.
TEST(Sampling, CloseCallsAreDecidedInDoublePrecision) {
  const auto inFloat = [](double x) {
    return static_cast<double>(std::exp(static_cast<float>(x)));
  };
  TwisterByTheBook twister(42);
  std::mt19937 rng(42);
  int floatsDisagree = 0;
  for (int i = 0; i < 2000; ++i) {
    const double uniform = twister.uniform();
    const std::mt19937 before = rng;
    rng.discard(2);
    if (uniform <= 0.5) {
      continue;  // the better one, however close
    }
    auto score = static_cast<float>(std::log((1.0 - uniform) / uniform));
    for (int step = 0; step < 3; ++step, score = std::nextafter(score, -kInf)) {
      const size_t expected = walkByTheBook({0.0F, score}, uniform, inDouble);
      std::mt19937 draw = before;
      ASSERT_EQ(expected, static_cast<size_t>(chosen({0.0F, score}, 1.0F, 0, 1.0F, draw)));
      floatsDisagree += expected != walkByTheBook({0.0F, score}, uniform, inFloat) ? 1 : 0;
    }
  }
  EXPECT_GT(floatsDisagree, 10) << "calls so close that single precision would miss them";
}

// Behind one likely token come so many of so little weight that the leading 32 bits of the draw
// leave several to choose from.
TEST(Sampling, TheFirstOutputHoldsTheLowBitsOfTheDraw) {
  std::vector<float> logits = {0.0F};
  for (int i = 0; i < 20000; ++i) {
    logits.push_back(-23.0F - 1e-5F * static_cast<float>(i));
  }
  TwisterByTheBook twister(42);
  std::mt19937 rng(42);
  double uniform = twister.uniform();
  while (uniform < 1.0 - 1e-6) {
    uniform = twister.uniform();
    rng.discard(2);
  }
  const size_t expected = walkByTheBook(logits, uniform, inDouble);
  ASSERT_NE(0u, expected);
  ASSERT_NE(expected, walkByTheBook(logits, std::floor(uniform * 0x1p32) * 0x1p-32, inDouble));
  EXPECT_EQ(expected, static_cast<size_t>(chosen(logits, 1.0F, 0, 1.0F, rng)));
}

TEST(Sampling, AVocabularyOfOneTokenDrawsTwice) {
  std::mt19937 rng(42);
  std::mt19937 twoOn(42);
  twoOn.discard(2);
  EXPECT_EQ(0, chosen({-3.0F}, 0.8F, 0, 1.0F, rng));
  EXPECT_EQ(twoOn, rng);
}

// A generator whose next outputs are all ones.
std::mt19937 generatorOfOnes() {
  uint32_t word = 0xFFFFFFFFU;  // of the state, by the steps of the output backwards
  word ^= word >> 18U;
  word ^= (word << 15U) & 0xEFC60000U;
  uint32_t undone = word;
  for (int i = 0; i < 4; ++i) {
    undone = word ^ ((undone << 7U) & 0x9D2C5680U);
  }
  word = undone;
  for (int i = 0; i < 2; ++i) {
    undone = word ^ (undone >> 11U);
  }
  std::stringstream state;
  for (size_t i = 0; i < std::mt19937::state_size; ++i) {
    state << undone << ' ';
  }
  state << 0;
  std::mt19937 generator;
  state >> generator;
  return generator;
}

TEST(Sampling, TheLargestDrawStaysBelowOne) {
  std::mt19937 rng = generatorOfOnes();
  std::mt19937 outputs = rng;
  ASSERT_EQ(0xFFFFFFFFU, outputs());
  ASSERT_EQ(0xFFFFFFFFU, outputs());
  // The sum of both weights is the next number above 1. All of it would reach the second token.
  EXPECT_EQ(0, chosen({0.0F, -36.5F}, 1.0F, 0, 1.0F, rng));
}

// Each of the small weights raises the sum by more than itself: walking them leaves a rest.
TEST(Sampling, ARestLeftByRoundingGoesToTheLastOfTheRange) {
  const std::vector<float> logits = {-36.5F, -36.5F, 0.0F,   -36.5F, -36.5F, -36.5F,
                                     -36.5F, -36.5F, -36.5F, -36.5F, -36.5F};
  std::mt19937 rng = generatorOfOnes();
  EXPECT_EQ(10, chosen(logits, 1.0F, 0, 1.0F, rng));
  rng = generatorOfOnes();
  EXPECT_EQ(9, chosen(logits, 1.0F, 10, 1.0F, rng)) << "of the best ten";
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
