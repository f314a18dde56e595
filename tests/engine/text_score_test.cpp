#include "engine/text_score.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/engine/engine_models.h"
#include "tests/support/family_shapes.h"
#include "tests/support/reference_model.h"

namespace engine {
namespace {

using kel::test::RandomModelSpec;
using testing_support::feed;
using testing_support::logitsOf;
using testing_support::OpenedModel;
using Fed = Context::Fed;

RandomModelSpec oddModel(uint64_t seed, uint64_t vocab = 40) {
  return {.hidden = 8,
          .ffn = 16,
          .vocab = vocab,
          .shape = kel::test::oddShape(),
          .statesShape = true,
          .seed = seed};
}

const OpenedModel& one() {
  static const OpenedModel opened(oddModel(1));
  return opened;
}
const OpenedModel& other() {
  static const OpenedModel opened(oddModel(2));
  return opened;
}

std::vector<int32_t> text(size_t count) {
  std::vector<int32_t> ids(count);
  for (size_t i = 0; i < count; ++i) {
    ids[i] = static_cast<int32_t>((i * i + 3 * i / 2) % 40);
  }
  return ids;
}

std::vector<double> logSoftmax(const std::vector<double>& logits) {
  double sum = 0;
  for (const double logit : logits) {
    sum += std::exp(logit);
  }
  std::vector<double> logs;
  for (const double logit : logits) {
    logs.push_back(logit - std::log(sum));
  }
  return logs;
}

// What is known of every token of a text, in double precision and without any of what is tested but
// the file's reader: each in a window from `first` on that holds it, by the definition.
struct Expected {
  std::vector<double> losses;
  std::vector<double> referenceLosses;
  std::vector<double> divergences;
  int sameBest = 0;
};

Expected expectedOf(const std::vector<int32_t>& ids, size_t window, size_t stride) {
  Expected expected;
  size_t scored = 1;  // of the text, that need no more counting
  for (size_t first = 0; scored < ids.size(); first += stride) {
    const size_t end = std::min(first + window, ids.size());
    const std::vector<size_t> tokens(ids.begin() + static_cast<std::ptrdiff_t>(first),
                                     ids.begin() + static_cast<std::ptrdiff_t>(end));
    const auto own = kel::test::runReference(one().model->file(), tokens, kel::test::oddShape());
    const auto others =
        kel::test::runReference(other().model->file(), tokens, kel::test::oddShape());
    for (scored = std::max(scored, first + 1); scored < end; ++scored) {
      const std::vector<double> q = logSoftmax(own.logits[scored - 1 - first]);
      const std::vector<double> p = logSoftmax(others.logits[scored - 1 - first]);
      const auto next = static_cast<size_t>(ids[scored]);
      expected.losses.push_back(-q[next]);
      expected.referenceLosses.push_back(-p[next]);
      double divergence = 0;
      for (size_t id = 0; id < p.size(); ++id) {
        divergence += std::exp(p[id]) * (p[id] - q[id]);
      }
      expected.divergences.push_back(divergence);
      expected.sameBest += std::max_element(p.begin(), p.end()) - p.begin() ==
                           std::max_element(q.begin(), q.end()) - q.begin();
    }
  }
  return expected;
}

void expectMeanOf(const std::vector<double>& values, const RunningMean& mean) {
  double sum = 0;
  for (const double value : values) {
    sum += value;
  }
  const auto count = static_cast<double>(values.size());
  double squares = 0;
  for (const double value : values) {
    squares += (value - sum / count) * (value - sum / count);
  }
  EXPECT_EQ(values.size(), mean.count());
  EXPECT_NEAR(sum / count, mean.mean(), 2e-5);
  EXPECT_NEAR(std::sqrt(squares / (count - 1) / count), mean.standardError(), 2e-5);
}

TextScore scoreOf(Context& model, Context* reference, const std::vector<int32_t>& ids,
                  const ScoreOptions& options) {
  TextScore score;
  kel::Status status;
  EXPECT_EQ(Fed::All, scoreText({model, reference}, ids, options, nullptr, nullptr, score, status))
      << status.message;
  return score;
}

// Windows beside one another, overlapping ones, and one that holds more than logits are held of.
TEST(TextScore, IsThatOfAnIndependentAccount) {
  const auto model = one().context({});
  const auto reference = other().context({});
  struct Case {
    size_t tokens, window, stride, windows;
  };
  for (const Case& c : {Case{30, 8, 8, 4}, {30, 9, 4, 7}, {200, 150, 60, 2}, {5, 50, 25, 1}}) {
    const std::vector<int32_t> ids = text(c.tokens);
    const Expected expected = expectedOf(ids, c.window, c.stride);
    const TextScore score =
        scoreOf(*model, reference.get(), ids, {.window = c.window, .stride = c.stride});
    EXPECT_EQ(c.windows, score.windows);
    expectMeanOf(expected.losses, score.losses);
    expectMeanOf(expected.referenceLosses, score.referenceLosses);
    expectMeanOf(expected.divergences, score.distance.divergence);
    EXPECT_NEAR(expected.sameBest,
                score.distance.sameBest.mean() * static_cast<double>(expected.losses.size()), 1e-9);
    std::vector<double> excess;
    for (size_t i = 0; i < expected.losses.size(); ++i) {
      excess.push_back(expected.losses[i] - expected.referenceLosses[i]);
    }
    expectMeanOf(excess, score.excess);
    EXPECT_NEAR(*std::max_element(expected.divergences.begin(), expected.divergences.end()),
                score.distance.greatestDivergence, 2e-5);
  }
}

TEST(TextScore, OfAModelBesideItselfIsNoDistance) {
  const auto model = one().context({});
  const auto same = one().context({});
  const TextScore score = scoreOf(*model, same.get(), text(100), {.window = 40, .stride = 20});
  EXPECT_EQ(99U, score.losses.count());
  EXPECT_EQ(score.losses.mean(), score.referenceLosses.mean());
  EXPECT_EQ(0, score.distance.divergence.mean());
  EXPECT_EQ(0, score.distance.greatestDivergence);
  EXPECT_EQ(1, score.distance.sameBest.mean());
  EXPECT_EQ(0, score.excess.mean());
}

TEST(TextScore, DependsNeitherOnThreadsNorOnWhatTheContextHeld) {
  const auto model = one().context({});
  const auto reference = other().context({});
  const ScoreOptions options{.window = 90, .stride = 50};
  const TextScore score = scoreOf(*model, reference.get(), text(150), options);
  feed(*model, {1, 2, 3});
  ScoreOptions more = options;
  more.threads = 3;
  const TextScore again = scoreOf(*model, reference.get(), text(150), more);
  EXPECT_EQ(score.losses.mean(), again.losses.mean());
  EXPECT_EQ(score.distance.divergence.mean(), again.distance.divergence.mean());
  EXPECT_EQ(score.distance.sameBest.mean(), again.distance.sameBest.mean());
}

// The last token of a window is foretold, not read.
TEST(TextScore, AContextNeedsRoomForAllButTheLastTokenOfAWindow) {
  const auto fitting = one().context({.positions = 19});
  const TextScore score = scoreOf(*fitting, nullptr, text(50), {.window = 20, .stride = 10});
  EXPECT_EQ(49U, score.losses.count());
  const auto less = one().context({.positions = 18});
  TextScore none;
  kel::Status status;
  EXPECT_EQ(Fed::Failed, scoreText({*less}, text(50), {.window = 20, .stride = 10}, nullptr,
                                   nullptr, none, status));
  EXPECT_EQ("the text takes 19 tokens, but 18 of 18 positions are free", status.message);
}

TEST(TextScore, ProgressCountsThePositionsOfBothModels) {
  const auto model = one().context({});
  const auto reference = other().context({});
  std::vector<uint64_t> told;
  TextScore score;
  kel::Status status;
  EXPECT_EQ(Fed::All, scoreText(
                          {*model, reference.get()}, text(30), {.window = 20, .stride = 10},
                          [&](uint64_t done, uint64_t total) {
                            told.push_back(done);
                            EXPECT_EQ(2U * (19 + 19), total);
                          },
                          nullptr, score, status));
  EXPECT_EQ((std::vector<uint64_t>{19, 38, 47, 56, 66, 76}), told);
}

TEST(TextScore, IsStoppedWithWhatWasRead) {
  const auto model = one().context({});
  volatile int cancel = 0;
  TextScore score;
  kel::Status status;
  EXPECT_EQ(Fed::Cancelled, scoreText(
                                {*model}, text(100), {.window = 20, .stride = 20},
                                [&](uint64_t done, uint64_t) { cancel = done >= 38 ? 1 : 0; },
                                &cancel, score, status));
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(2U, score.windows);
  EXPECT_EQ(38U, score.losses.count());
}

TEST(TextScore, WhatCannotBeIsRefused) {
  const auto model = one().context({});
  const auto refusal = [&](const std::vector<int32_t>& ids, const ScoreOptions& options) {
    TextScore score;
    kel::Status status;
    EXPECT_EQ(Fed::Failed, scoreText({*model}, ids, options, nullptr, nullptr, score, status));
    return status.message;
  };
  const ScoreOptions usual{.window = 20, .stride = 10};
  EXPECT_EQ("the text is empty", refusal({}, usual));
  EXPECT_EQ("the text has one token, in front of which is nothing", refusal({7}, usual));
  EXPECT_EQ("token 40 is none of the model's 40", refusal({7, 40, 1}, usual));
  EXPECT_EQ("a window has to have at least 2 tokens", refusal(text(9), {.window = 1, .stride = 1}));
  EXPECT_EQ("the stride of windows of 20 tokens must be from 1 to 20, not 0",
            refusal(text(9), {.window = 20, .stride = 0}));
  EXPECT_EQ("the stride of windows of 20 tokens must be from 1 to 20, not 21",
            refusal(text(9), {.window = 20, .stride = 21}));
}

TEST(TextScore, VocabulariesMustBeTheSame) {
  EXPECT_TRUE(checkSameVocabulary(*one().model, *other().model).ok());
  const OpenedModel longer(oddModel(1, 41));
  EXPECT_EQ("the models have different vocabularies: 40 and 41 tokens",
            checkSameVocabulary(*one().model, *longer.model).message);
  RandomModelSpec spec = oddModel(1);
  spec.tokenizer.label = "raw";
  for (int id = 0; id < 40; ++id) {
    spec.tokenizer.tokens.push_back(id == 7 ? "seven" : "<" + std::to_string(id) + ">");
  }
  const OpenedModel renamed(spec);
  EXPECT_EQ("the models have different vocabularies: token 7 is \"<7>\" and \"seven\"",
            checkSameVocabulary(*one().model, *renamed.model).message);
}

TEST(FeedForLogits, GivesWhatFeedingToEachTokenGives) {
  const std::vector<int32_t> ids = text(140);
  const auto all = one().context({});
  std::vector<float> logits(ids.size() * 40);
  kel::Status status;
  ASSERT_EQ(Fed::All, all->feedForLogits(promptTokens(ids), logits, nullptr, status));
  for (const size_t count : {1, 127, 128, 129, 140}) {
    const auto context = one().context({});
    feed(*context, {ids.begin(), ids.begin() + static_cast<std::ptrdiff_t>(count)});
    const auto at = logits.begin() + static_cast<std::ptrdiff_t>((count - 1) * 40);
    EXPECT_EQ(logitsOf(*context), std::vector<float>(at, at + 40)) << count;
  }
  EXPECT_EQ(std::vector<float>(logits.end() - 40, logits.end()), logitsOf(*all));
  EXPECT_EQ(140U, all->position());
  EXPECT_EQ(140U, all->statistics().promptTokens);
}

TEST(FeedForLogits, ThatIsStoppedLeavesNothing) {
  const auto context = one().context({});
  feed(*context, {1, 2, 3});
  std::vector<float> logits(10 * 40);
  const volatile int cancel = 1;
  kel::Status status;
  EXPECT_EQ(Fed::Cancelled,
            context->feedForLogits(promptTokens(text(10)), logits, &cancel, status));
  EXPECT_EQ(0U, context->position());
  EXPECT_TRUE(context->logits().empty());
}

}  // namespace
}  // namespace engine
