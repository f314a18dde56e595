// Several contexts in one pass: each as if it were alone.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "engine/context.h"
#include "engine/passes.h"
#include "tests/engine/engine_models.h"
#include "tests/qwen35/tested_tables.h"
#include "tests/support/family_shapes.h"
#include "tests/support/float_bits.h"

namespace engine {
namespace {

using kel::QuantType;
using kel::test::Bits;
using kel::test::TensorPlan;
using qwen35::CacheType;
using testing_support::feed;
using testing_support::OpenedModel;
using Contexts = std::vector<std::unique_ptr<Context>>;

const OpenedModel& mixedModel() {
  static const OpenedModel opened({.hidden = 256,
                                   .ffn = 256,
                                   .vocab = 50,
                                   .types = {QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K,
                                             QuantType::BF16, QuantType::F32},
                                   .shape = kel::test::familyShape(4, 8, 2, 16, true),
                                   .statesShape = true});
  return opened;
}

const OpenedModel& oddModel() {
  static const OpenedModel opened(
      {.hidden = 8, .ffn = 16, .vocab = 50, .shape = kel::test::oddShape(), .statesShape = true});
  return opened;
}

Bits bits(const Context& context) {
  return kel::test::bitsOf(context.logits());
}

std::shared_ptr<Passes> passesOf(const OpenedModel& model, const PassesOptions& options) {
  std::shared_ptr<Passes> passes;
  const kel::Status status = Passes::create(model.model, options, passes);
  EXPECT_TRUE(status.ok()) << status.message;
  return passes;
}

std::vector<kel::Status> feedAll(const Contexts& contexts, const std::vector<int32_t>& tokens) {
  std::vector<Context*> pointers;
  for (const auto& context : contexts) {
    pointers.push_back(context.get());
  }
  std::vector<kel::Status> statuses(tokens.size());
  Context::feedTogether(pointers, tokens, statuses);
  return statuses;
}

// Of no two contexts the same, nor of two turns.
int32_t tokenOf(size_t context, size_t turn) {
  return static_cast<int32_t>((context * 11 + turn * 17 + 3) % 50);
}

// Prompts of different lengths, of which the first one has no token.
void feedPrompt(Context& context, size_t index, size_t longest) {
  const size_t lengths[] = {0, 5, longest, 1, 12};
  std::vector<int32_t> prompt;
  for (size_t i = 0; i < lengths[index % 5]; ++i) {
    prompt.push_back(static_cast<int32_t>((i * 7 + index * 13) % 50));
  }
  if (!prompt.empty()) {
    feed(context, prompt);
  }
}

// That contexts in one pass, of which each third has caches of 16 bits, have the bits of contexts
// by themselves.
void expectSameBits(const OpenedModel& model, size_t count, size_t longestPrompt,
                    const PassesOptions& options) {
  const std::shared_ptr<Passes> passes = passesOf(model, options);
  Contexts together;
  Contexts alone;
  for (size_t i = 0; i < count; ++i) {
    ContextOptions own{.positions = options.positions - i,
                       .cacheType = i % 3 == 1 ? CacheType::BF16 : CacheType::F32};
    alone.push_back(model.context(own));
    own.passes = passes;
    together.push_back(model.context(own));
    feedPrompt(*alone.back(), i, longestPrompt);
    feedPrompt(*together.back(), i, longestPrompt);
  }
  for (size_t turn = 0; turn < 3; ++turn) {
    std::vector<int32_t> tokens;
    for (size_t i = 0; i < count; ++i) {
      tokens.push_back(tokenOf(i, turn));
      ASSERT_TRUE(alone[i]->feedToken(tokens.back()).ok());
    }
    for (const kel::Status& status : feedAll(together, tokens)) {
      ASSERT_TRUE(status.ok()) << status.message;
    }
    for (size_t i = 0; i < count; ++i) {
      ASSERT_EQ(bits(*alone[i]), bits(*together[i]))
          << "context " << i << " of " << count << ", turn " << turn;
      ASSERT_EQ(alone[i]->tokens(), together[i]->tokens());
    }
  }
  // What was stored serves what comes after it.
  for (size_t i = 0; i < count; ++i) {
    feed(*alone[i], {4, 4, 2});
    feed(*together[i], {4, 4, 2});
    ASSERT_EQ(bits(*alone[i]), bits(*together[i])) << "context " << i << " of " << count;
  }
}

// More than attend at a time, too, and more positions than scores are formed of in a piece.
TEST(FeedTogether, EachContextHasTheBitsThatItHasAlone) {
  for (const OpenedModel* model : {&mixedModel(), &oddModel()}) {
    for (const size_t count : {1, 2, 3, 5, 11}) {
      expectSameBits(*model, count, 70, {.positions = 96});
    }
  }
}

TEST(FeedTogether, NeitherThreadsNorInstructionSetsCount) {
  for (const size_t threads : {1, 2, 3}) {
    expectSameBits(mixedModel(), 4, 3, {.positions = 96, .threads = threads});
  }
  for (const qwen35::KernelTable* table : qwen35::testedTables()) {
    SCOPED_TRACE(table->name);
    expectSameBits(oddModel(), 4, 18, {.positions = 96, .threads = 2, .kernels = table});
  }
}

Contexts contextsOver(const OpenedModel& model, const std::shared_ptr<Passes>& passes, size_t count,
                      uint64_t positions) {
  Contexts contexts;
  for (size_t i = 0; i < count; ++i) {
    contexts.push_back(model.context({.positions = positions, .passes = passes}));
  }
  return contexts;
}

TEST(FeedTogether, MoreContextsThanAPassTakesAreFedByTheGroup) {
  const size_t count = qwen35::kBatchTokens + 2;
  const Contexts contexts =
      contextsOver(oddModel(), passesOf(oddModel(), {.positions = 4}), count, 4);
  std::vector<int32_t> tokens;
  for (size_t i = 0; i < count; ++i) {
    tokens.push_back(tokenOf(i, 0));
  }
  for (const kel::Status& status : feedAll(contexts, tokens)) {
    ASSERT_TRUE(status.ok()) << status.message;
  }
  for (const size_t i : {size_t{0}, count - 3, count - 2, count - 1}) {
    const auto alone = oddModel().context({.positions = 4});
    ASSERT_TRUE(alone->feedToken(tokens[i]).ok());
    EXPECT_EQ(bits(*alone), bits(*contexts[i])) << i;
    EXPECT_EQ(1U, contexts[i]->position());
  }
}

TEST(FeedTogether, ATokenThatIsRefusedLeavesItsContextAndTheOthersAlone) {
  const Contexts contexts = contextsOver(oddModel(), passesOf(oddModel(), {.positions = 3}), 4, 3);
  feed(*contexts[0], {1, 2});
  feed(*contexts[1], {1, 2, 3});
  feed(*contexts[2], {1});
  feed(*contexts[3], {7});
  const Bits full = bits(*contexts[1]);
  const Bits odd = bits(*contexts[2]);
  const std::vector<kel::Status> statuses = feedAll(contexts, {5, 6, 50, 8});
  EXPECT_TRUE(statuses[0].ok());
  EXPECT_EQ("the text takes 1 tokens, but 0 of 3 positions are free", statuses[1].message);
  EXPECT_EQ("token 50 is none of the model's 50", statuses[2].message);
  EXPECT_TRUE(statuses[3].ok());
  EXPECT_EQ(full, bits(*contexts[1]));
  EXPECT_EQ(odd, bits(*contexts[2]));
  EXPECT_EQ(1U, contexts[2]->position());
  for (const auto& [i, first, token] :
       {std::tuple<size_t, std::vector<int32_t>, int32_t>{0, {1, 2}, 5}, {3, {7}, 8}}) {
    const auto alone = oddModel().context({.positions = 3});
    feed(*alone, first);
    ASSERT_TRUE(alone->feedToken(token).ok());
    EXPECT_EQ(bits(*alone), bits(*contexts[i])) << i;
  }
}

TEST(FeedTogether, NumbersThatAreNotFiniteFailTheirContextAlone) {
  for (const float odd :
       {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
    const OpenedModel broken(
        {.hidden = 256,
         .ffn = 256,
         .vocab = 50,
         .types = {QuantType::Q4_K, QuantType::Q5_K},
         .shape = kel::test::familyShape(4, 8, 2, 16, true),
         .statesShape = true,
         .edit = [odd](std::vector<TensorPlan>& plan) {
           TensorPlan& table = planned(plan, "token_embd.weight");
           table.type = QuantType::F32;
           table.data = kel::test::tensorBytes(table, 1);
           std::memcpy(table.data.data() + (size_t{13} * 256 + 30) * sizeof odd, &odd, sizeof odd);
         }});
    const Contexts contexts = contextsOver(broken, passesOf(broken, {.positions = 16}), 4, 16);
    for (const auto& context : contexts) {
      feed(*context, {1, 2});
    }
    // The one that fails is the first of the pass, and not of the contexts.
    const std::vector<int32_t> tokens = {50, 13, 4, 5};
    const std::vector<kel::Status> statuses = feedAll(contexts, tokens);
    EXPECT_EQ("token 50 is none of the model's 50", statuses[0].message);
    EXPECT_EQ(kel::StatusCode::Corrupted, statuses[1].code);
    EXPECT_EQ(
        "the model's numbers run out of range; its weights are damaged or not those of a model",
        statuses[1].message);
    EXPECT_TRUE(contexts[1]->logits().empty());
    contexts[1]->reset();
    feed(*contexts[1], {1, 2});
    for (const size_t i : {2, 3}) {
      EXPECT_TRUE(statuses[i].ok());
      const auto alone = broken.context({.positions = 16});
      feed(*alone, {1, 2});
      EXPECT_EQ(bits(*alone), bits(*contexts[1]));
      ASSERT_TRUE(alone->feedToken(tokens[i]).ok());
      EXPECT_EQ(bits(*alone), bits(*contexts[i])) << i;
    }
  }
}

TEST(FeedTogether, EachContextCountsItsOwnTokens) {
  const Contexts contexts =
      contextsOver(oddModel(), passesOf(oddModel(), {.positions = 16}), 3, 16);
  feed(*contexts[1], {1, 2, 3});
  feedAll(contexts, {1, 2, 3});
  ASSERT_TRUE(contexts[0]->feedToken(9).ok());
  feedAll(contexts, {4, 5, 60});
  const uint64_t generated[] = {3, 2, 1};
  const uint64_t read[] = {0, 3, 0};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(generated[i], contexts[i]->statistics().generatedTokens) << i;
    EXPECT_EQ(read[i], contexts[i]->statistics().promptTokens) << i;
    EXPECT_GT(contexts[i]->statistics().generatedSeconds, 0);
  }
}

// What a guess needs until it is judged is its context's own.
TEST(FeedTogether, MayComeBetweenAGuessAndItsJudgement) {
  const Contexts contexts =
      contextsOver(oddModel(), passesOf(oddModel(), {.positions = 16}), 3, 16);
  const auto alone = oddModel().context({.positions = 16});
  feed(*contexts[0], {1, 2});
  feed(*alone, {1, 2});
  ASSERT_TRUE(contexts[0]->feedGuess(std::vector<int32_t>{3, 4, 5}).ok());
  std::vector<kel::Status> statuses(2);
  Context::feedTogether(std::vector<Context*>{contexts[1].get(), contexts[2].get()},
                        std::vector<int32_t>{6, 7}, statuses);
  ASSERT_TRUE(contexts[0]->keep(2).ok());
  for (const int32_t token : {3, 4}) {
    ASSERT_TRUE(alone->feedToken(token).ok());
  }
  EXPECT_EQ(bits(*alone), bits(*contexts[0]));
  feed(*alone, {8});
  feed(*contexts[0], {8});
  EXPECT_EQ(bits(*alone), bits(*contexts[0]));
}

TEST(Passes, AreOfOneModelAndOfSoManyPositions) {
  const std::shared_ptr<Passes> passes = passesOf(oddModel(), {.positions = 10});
  std::unique_ptr<Context> made;
  EXPECT_EQ("a context of 11 positions over passes with room for 10",
            Context::create(oddModel().model, {.positions = 11, .passes = passes}, made).message);
  EXPECT_EQ("a context over passes of another model",
            Context::create(mixedModel().model, {.positions = 9, .passes = passes}, made).message);
  EXPECT_TRUE(Context::create(oddModel().model, {.positions = 10, .passes = passes}, made).ok());
  std::shared_ptr<Passes> none;
  EXPECT_EQ("a context of 301 positions; the model has room for 300",
            Passes::create(oddModel().model, {.positions = 301}, none).message);
}

TEST(Passes, HaveTheThreadsThatAreAskedFor) {
  EXPECT_EQ(3U, passesOf(oddModel(), {.positions = 10, .threads = 3})->maxThreads());
}

}  // namespace
}  // namespace engine
