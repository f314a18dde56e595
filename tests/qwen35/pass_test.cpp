// Passes of several tokens against passes of one, and against passes cut elsewhere.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "qwen35/forward.h"
#include "qwen35/snapshot.h"
#include "tests/support/float_bits.h"
#include "tests/support/instrumented.h"
#include "tests/support/opened_model.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::QuantType;
using kel::test::Bits;
using kel::test::bitsOf;
using kel::test::Handle;
using kel::test::kInstrumented;
using kel::test::ModelFile;
using qwen35::Arithmetic;

using Tokens = std::vector<size_t>;

constexpr size_t kTokens = 70;
constexpr size_t kLengthStep = kInstrumented ? 9 : 1;
constexpr int kCuts = kInstrumented ? 1 : 4;
// Of both kinds. In a model of one type they are alike; in one of all types, each kind of matrix
// has been of every type after 20.
constexpr size_t kLayersOfOneType = 4;
constexpr size_t kMixedLayers = kInstrumented ? 8 : 20;
constexpr QuantType kTypes[] = {QuantType::F32, QuantType::BF16, QuantType::Q8_0, QuantType::Q4_K,
                                QuantType::Q5_K};

Tokens prompt(size_t n) {
  Tokens tokens(n);
  std::mt19937 generator(9);
  for (size_t& token : tokens) {
    token = generator() % 300;
  }
  return tokens;
}

Tokens part(const Tokens& tokens, size_t begin, size_t count) {
  const auto first = tokens.begin() + static_cast<std::ptrdiff_t>(begin);
  return {first, first + static_cast<std::ptrdiff_t>(count)};
}

void append(Bits& all, const Bits& more) {
  all.insert(all.end(), more.begin(), more.end());
}

// Everything that the forward pass leaves behind.
std::vector<Bits> stateOf(const qwen35::Model& m) {
  std::vector<Bits> out;
  for (const qwen35::Layer& layer : m.layers) {
    out.push_back({static_cast<uint32_t>(layer.pos)});
    for (const qwen35::StateBuffer* buffer :
         {&layer.ssmState, &layer.convState, &layer.kCache, &layer.vCache}) {
      out.push_back(bitsOf(*buffer));
    }
  }
  return out;
}

ModelFile modelOf(const std::vector<QuantType>& types, size_t layers) {
  return ModelFile(
      {.hidden = 256, .ffn = 256, .vocab = 301, .types = types, .biases = true, .blocks = layers});
}

const ModelFile& mixedModel() {
  static const ModelFile file =
      modelOf({QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K, QuantType::BF16, QuantType::F32},
              kMixedLayers);
  return file;
}

// What tokens leave behind and give when each is a pass of its own.
struct OneByOne {
  OneByOne(const ModelFile& file, const Tokens& tokens, Arithmetic arithmetic)
      : handle(file, kTokens) {
    for (const size_t token : tokens) {
      std::vector<float> row;
      append(hidden, bitsOf(handle.pass({token}, arithmetic, &row)));
      append(logits, bitsOf(row));
    }
  }

  Handle handle;
  Bits hidden;
  Bits logits;
};

TEST(Pass, EveryLengthGivesTheBitsOfSingleTokens) {
  const ModelFile file({.biases = true, .layerKinds = "FFFFFFFL", .blocks = 8});
  const Tokens tokens = prompt(kTokens);
  OneByOne single(file, tokens, Arithmetic::Batch);
  Handle batch(file, kTokens);
  for (size_t length = 1; length <= kTokens; length += kLengthStep) {
    batch.reset();
    const Bits actual = bitsOf(batch.pass(part(tokens, 0, length), Arithmetic::Batch));
    EXPECT_TRUE(std::equal(actual.begin(), actual.end(), single.hidden.begin())) << length;
  }
  batch.reset();
  batch.pass(tokens, Arithmetic::Batch);
  EXPECT_EQ(stateOf(single.handle.model), stateOf(batch.model));
}

// The single-token arithmetic for several tokens at once: what verifies guessed tokens.
TEST(Pass, SeveralTokensGiveTheBitsOfSingleTokensInBothArithmeticsForEveryType) {
  for (const QuantType type : kTypes) {
    const ModelFile file = modelOf({type}, kLayersOfOneType);
    const Tokens tokens = prompt(kInstrumented ? 3 : 8);
    for (const Arithmetic arithmetic : {Arithmetic::SingleToken, Arithmetic::Batch}) {
      OneByOne single(file, tokens, arithmetic);
      for (const size_t count : {2, 3, 5, 8}) {
        if (count > tokens.size()) {
          continue;
        }
        Handle several(file, kTokens);
        std::vector<float> logits;
        const Bits hidden = bitsOf(several.pass(part(tokens, 0, count), arithmetic, &logits));
        EXPECT_TRUE(std::equal(hidden.begin(), hidden.end(), single.hidden.begin()))
            << kel::quantTypeName(type) << " " << count;
        const Bits all = bitsOf(logits);
        EXPECT_TRUE(std::equal(all.begin(), all.end(), single.logits.begin()))
            << kel::quantTypeName(type) << " " << count;
        if (count == tokens.size()) {
          EXPECT_EQ(stateOf(single.handle.model), stateOf(several.model));
        }
      }
    }
  }
}

class PassOnThreads : public ::testing::Test {
 protected:
  ~PassOnThreads() override { omp_set_num_threads(before); }

  const int before = omp_get_max_threads();
};

TEST_F(PassOnThreads, AndWithEveryInstructionSetGivesTheSameBits) {
  const Tokens tokens = prompt(kInstrumented ? 3 : 5);
  // Every table with every number of threads would be the same twice over.
  const auto threadCounts = [](const qwen35::KernelTable* table) {
    const bool all = !kInstrumented && table == qwen35::supportedKernels().back();
    return all ? std::vector<size_t>{1, 2, 3, 7} : std::vector<size_t>{3};
  };
  for (const Arithmetic arithmetic : {Arithmetic::SingleToken, Arithmetic::Batch}) {
    Handle reference(mixedModel(), kTokens);
    std::vector<float> logits;
    const qwen35::ContextOptions plain{.threads = 1, .kernels = qwen35::supportedKernels().front()};
    const Bits expected = bitsOf(reference.pass(tokens, arithmetic, &logits, plain));
    const Bits expectedLogits = bitsOf(logits);
    const std::vector<Bits> expectedState = stateOf(reference.model);
    for (const qwen35::KernelTable* table : qwen35::supportedKernels()) {
      for (const size_t threads : threadCounts(table)) {
        omp_set_num_threads(static_cast<int>(threads));
        Handle handle(mixedModel(), kTokens);
        const Bits hidden = bitsOf(
            handle.pass(tokens, arithmetic, &logits, {.threads = threads, .kernels = table}));
        EXPECT_EQ(expected, hidden) << table->name << " " << threads;
        EXPECT_EQ(expectedLogits, bitsOf(logits)) << table->name << " " << threads;
        EXPECT_EQ(expectedState, stateOf(handle.model)) << table->name << " " << threads;
      }
    }
  }
}

TEST(Pass, ArithmeticsDifferForTheKFormatsAlone) {
  const Tokens tokens = prompt(kInstrumented ? 2 : 12);
  for (const QuantType type : kTypes) {
    const ModelFile file = modelOf({type}, kLayersOfOneType);
    OneByOne single(file, tokens, Arithmetic::SingleToken);
    OneByOne batch(file, tokens, Arithmetic::Batch);
    const bool isKFormat = type == QuantType::Q4_K || type == QuantType::Q5_K;
    EXPECT_EQ(!isKFormat, single.logits == batch.logits) << kel::quantTypeName(type);
    float largest = 0.0f;
    for (const uint32_t logit : single.logits) {
      largest = std::max(largest, std::abs(std::bit_cast<float>(logit)));
    }
    for (size_t i = 0; i < single.logits.size(); ++i) {
      ASSERT_NEAR(std::bit_cast<float>(single.logits[i]), std::bit_cast<float>(batch.logits[i]),
                  1e-4f * largest)
          << kel::quantTypeName(type) << " " << i;
    }
  }
}

TEST(Pass, ResultsDoNotDependOnTheCut) {
  const Tokens tokens = prompt(kTokens);
  for (const Arithmetic arithmetic : {Arithmetic::Batch, Arithmetic::SingleToken}) {
    Handle whole(mixedModel(), kTokens);
    const Bits expected = bitsOf(whole.pass(tokens, arithmetic));
    std::mt19937 generator(10);
    for (int cut = 0; cut < kCuts; ++cut) {
      Handle handle(mixedModel(), kTokens);
      Bits actual;
      for (size_t at = 0; at < kTokens;) {
        const size_t count = std::min<size_t>(1 + generator() % 20, kTokens - at);
        append(actual, bitsOf(handle.pass(part(tokens, at, count), arithmetic)));
        at += count;
      }
      EXPECT_EQ(expected, actual);
      EXPECT_EQ(stateOf(whole.model), stateOf(handle.model));
    }
  }
}

TEST(Pass, TheEntrancesAreSinglePassesOfTheSingleTokenArithmetic) {
  const Tokens tokens = prompt(3);
  OneByOne single(mixedModel(), tokens, Arithmetic::SingleToken);
  Handle handle(mixedModel(), kTokens);
  Bits hidden = bitsOf(handle.hidden(tokens[0]));
  append(hidden, bitsOf(handle.hidden(tokens[1])));
  EXPECT_TRUE(std::equal(hidden.begin(), hidden.end(), single.hidden.begin()));
  const Bits logits = bitsOf(handle.logits(tokens[2]));
  EXPECT_TRUE(std::equal(logits.begin(), logits.end(), single.logits.begin() + 2 * 301));
  EXPECT_EQ(stateOf(single.handle.model), stateOf(handle.model));
}

TEST(Pass, OnlyTheLastLogitsAreWrittenUnlessAllAreAskedFor) {
  const Tokens tokens = prompt(4);
  OneByOne single(mixedModel(), tokens, Arithmetic::Batch);
  Handle handle(mixedModel(), kTokens);
  const size_t n = handle.model.nEmbd;
  std::vector<float> embeddings(tokens.size() * n);
  for (size_t i = 0; i < tokens.size(); ++i) {
    embedRow(handle.model, tokens[i], embeddings.data() + i * n);
  }
  std::vector<float> logits(302, 5.0f);
  qwen35::Context context(handle.model, {.maxTokens = tokens.size()});
  forward(context, handle.model,
          {.embeddings = embeddings.data(),
           .count = tokens.size(),
           .arithmetic = Arithmetic::Batch,
           .logits = logits.data()});
  EXPECT_EQ(5.0f, logits.back());
  logits.pop_back();
  EXPECT_EQ(Bits(single.logits.end() - 301, single.logits.end()), bitsOf(logits));
}

// An input that is not finite cannot be quantised: its rows are decoded, beside quantised ones.
TEST(Pass, ATokenThatIsNotFiniteLeavesTheOthersAlone) {
  for (const float odd : {std::numeric_limits<float>::infinity(), std::nanf("")}) {
    const auto breakRow = [&](std::vector<kel::test::TensorPlan>& plan) {
      kel::test::TensorPlan& table = kel::test::planned(plan, "token_embd.weight");
      table.type = QuantType::F32;
      table.data = kel::test::tensorBytes(table, 1);
      std::memcpy(table.data.data() + (size_t{7} * 256 + 30) * sizeof odd, &odd, sizeof odd);
    };
    const ModelFile file({.hidden = 256,
                          .ffn = 256,
                          .vocab = 301,
                          .types = {QuantType::Q4_K, QuantType::Q5_K},
                          .edit = breakRow});
    const Tokens tokens = {1, 2, 7, 3};
    OneByOne single(file, tokens, Arithmetic::SingleToken);
    Handle several(file, kTokens);
    const std::vector<float> hidden = several.pass(tokens, Arithmetic::SingleToken);
    const Bits actual = bitsOf(hidden);
    EXPECT_TRUE(std::equal(actual.begin(), actual.begin() + 2 * 256, single.hidden.begin()));
    EXPECT_TRUE(std::all_of(hidden.begin(), hidden.begin() + 2 * 256,
                            [](float f) { return std::isfinite(f); }));
    EXPECT_TRUE(
        std::all_of(hidden.begin() + 2 * 256, hidden.end(), [](float f) { return std::isnan(f); }));
  }
}

TEST(Pass, WithoutRoomForAllItsTokensAttentionStoresNothing) {
  const ModelFile file({.layerKinds = "F"});
  Handle handle(file, 6);
  handle.pass(prompt(4), Arithmetic::Batch);
  const std::vector<Bits> before = stateOf(handle.model);
  const Bits hidden = bitsOf(handle.pass(prompt(3), Arithmetic::Batch));
  EXPECT_EQ(before, stateOf(handle.model));
  // The layers add their feed-forward alone, as where attention is switched off.
  const kel::test::ScopedEnv ablate("QWEN35_ABLATE", "lin");
  Handle without(file, 6);
  EXPECT_EQ(bitsOf(without.pass(prompt(3), Arithmetic::Batch)), hidden);
}

TEST(Snapshot, GoesBackToWhereThePassBegan) {
  const ModelFile file;
  const Tokens tokens = prompt(20);
  Handle expected(file);
  expected.pass(part(tokens, 0, 5), Arithmetic::Batch);
  Handle handle(file);
  handle.pass(part(tokens, 0, 5), Arithmetic::Batch);
  qwen35::Snapshot before(handle.model);
  handle.pass(part(tokens, 5, 9), Arithmetic::Batch, nullptr, {}, &before);
  before.restore(handle.model);
  handle.position = 5;
  EXPECT_EQ(bitsOf(expected.pass(part(tokens, 5, 3), Arithmetic::Batch)),
            bitsOf(handle.pass(part(tokens, 5, 3), Arithmetic::Batch)));
  EXPECT_EQ(bitsOf(expected.logits(1)), bitsOf(handle.logits(1)));
}

TEST(Snapshot, LeavesTheStatesOfSkippedLayersAlone) {
  const ModelFile file;
  Handle handle(file);
  handle.pass(prompt(5), Arithmetic::Batch);
  const std::vector<Bits> expected = stateOf(handle.model);
  qwen35::Snapshot before(handle.model);
  const kel::test::ScopedEnv ablate("QWEN35_ABLATE", "full");
  handle.pass(prompt(5), Arithmetic::Batch, nullptr, {}, &before);
  before.restore(handle.model);
  EXPECT_EQ(expected[0], stateOf(handle.model)[0]);
  EXPECT_EQ(expected[1], stateOf(handle.model)[1]);
}

}  // namespace
