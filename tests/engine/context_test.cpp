#include "engine/context.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "tests/engine/engine_models.h"
#include "tests/support/family_shapes.h"

namespace engine {
namespace {

using kel::test::RandomModelSpec;
using kel::test::TensorPlan;
using testing_support::feed;
using testing_support::logitsOf;
using testing_support::OpenedModel;
using Fed = Context::Fed;

RandomModelSpec oddModel() {
  return {.hidden = 8, .ffn = 16, .vocab = 40, .shape = kel::test::oddShape(), .statesShape = true};
}

const OpenedModel& sharedModel() {
  static const OpenedModel opened(oddModel());
  return opened;
}

std::vector<Token> tokens(size_t count) {
  std::vector<int32_t> ids(count);
  for (size_t i = 0; i < count; ++i) {
    ids[i] = static_cast<int32_t>(i * 7 % 40);
  }
  return promptTokens(ids);
}

TEST(EngineContext, ContextsOverOneModelDoNotMeet) {
  const auto one = sharedModel().context();
  const auto two = sharedModel().context();
  feed(*one, {1, 2, 3});
  feed(*two, {9, 8});
  const std::vector<float> after = logitsOf(*one);
  const auto alone = sharedModel().context();
  feed(*alone, {1, 2, 3});
  EXPECT_EQ(logitsOf(*alone), after);
  EXPECT_EQ(3U, one->position());
  EXPECT_EQ(2U, two->position());
}

TEST(EngineContext, HasTheModelsRoomWhereNobodyAsksForLess) {
  EXPECT_EQ(300U, sharedModel().context({})->capacity());
  EXPECT_EQ(10U, sharedModel().context({.positions = 10})->capacity());
  std::unique_ptr<Context> made;
  EXPECT_EQ("a context of 301 positions; the model has room for 300",
            Context::create(sharedModel().model, {.positions = 301}, made).message);
}

TEST(EngineContext, RoomIsLimitedWhereAModelHasMuch) {
  RandomModelSpec spec = oddModel();
  spec.shape.contextLength = kDefaultPositions + 1;
  EXPECT_EQ(kDefaultPositions, OpenedModel(spec).context({})->capacity());
}

TEST(EngineContext, MemoryThatIsNotThereIsAFault) {
  RandomModelSpec spec = oddModel();
  spec.shape.contextLength = uint64_t{1} << 31;
  const OpenedModel opened(spec);
  std::unique_ptr<Context> made;
  // Two caches of 2^31 * 2 * 40 floats in each of two layers.
  const kel::Status status = Context::create(opened.model, {.positions = uint64_t{1} << 31}, made);
  EXPECT_EQ(kel::StatusCode::IoError, status.code);
  EXPECT_EQ("not enough memory for a context of 2147483648 positions", status.message);
}

TEST(EngineContext, APromptThatHasNoRoomIsRefusedBeforeItIsRead) {
  const auto context = sharedModel().context({.positions = 10});
  feed(*context, {1, 2, 3});
  const std::vector<float> before = logitsOf(*context);
  kel::Status status;
  bool isTold = false;
  EXPECT_EQ(Fed::Failed, context->feed(
                             tokens(8), [&](size_t, size_t) { isTold = true; }, nullptr, status));
  EXPECT_EQ("the text takes 8 tokens, but 7 of 10 positions are free", status.message);
  EXPECT_FALSE(isTold);
  EXPECT_EQ(3U, context->position());
  EXPECT_EQ(before, logitsOf(*context));
  kel::Status fits;
  EXPECT_EQ(Fed::All, context->feed(tokens(7), nullptr, nullptr, fits));
  EXPECT_EQ("the text takes 1 tokens, but 0 of 10 positions are free",
            context->feedToken(1).message);
}

TEST(EngineContext, ATokenWithoutARowIsRefused) {
  const auto context = sharedModel().context();
  kel::Status status;
  EXPECT_EQ(Fed::Failed,
            context->feed(promptTokens(std::vector<int32_t>{1, 40}), nullptr, nullptr, status));
  EXPECT_EQ("token 40 is none of the model's 40", status.message);
  EXPECT_EQ("token -1 is none of the model's 40", context->feedToken(-1).message);
  EXPECT_EQ(0U, context->position());
}

TEST(EngineContext, ProgressIsToldAfterEveryBatch) {
  const auto context = sharedModel().context({});
  std::vector<size_t> told;
  kel::Status status;
  EXPECT_EQ(Fed::All, context->feed(
                          tokens(260),
                          [&](size_t done, size_t total) {
                            told.push_back(done);
                            EXPECT_EQ(260U, total);
                          },
                          nullptr, status));
  EXPECT_EQ((std::vector<size_t>{128, 256, 260}), told);
}

// What a context answers that has fed `first`, and then another text.
std::vector<float> continued(Context& context) {
  feed(context, {4, 4, 2});
  return logitsOf(context);
}

TEST(EngineContext, APromptThatIsStoppedWasNeverFed) {
  for (const std::vector<int32_t>& first : {std::vector<int32_t>{}, {5, 6, 7, 8, 9}}) {
    const auto expected = sharedModel().context({});
    const auto context = sharedModel().context({});
    if (!first.empty()) {
      feed(*expected, first);
      feed(*context, first);
    }
    // Stopped before the first layer, and after a batch.
    for (const size_t batches : {0, 1}) {
      volatile int cancel = batches == 0 ? 1 : 0;
      kel::Status status;
      EXPECT_EQ(Fed::Cancelled,
                context->feed(
                    tokens(250), [&](size_t, size_t) { cancel = 1; }, &cancel, status));
      EXPECT_TRUE(status.ok());
      EXPECT_EQ(first.size(), context->position());
    }
    EXPECT_EQ(continued(*expected), continued(*context));
  }
}

// The flag comes at any moment of a pass, between two of its layers.
TEST(EngineContext, APromptIsStoppedInTheMiddleOfABatch) {
  RandomModelSpec spec = oddModel();
  spec.shape.layers = 200;
  spec.shape.fullLayers = kel::LayerSet::every(4, 200);
  const OpenedModel opened(spec);
  const auto context = opened.context({});
  const auto expected = opened.context({});
  feed(*context, {5, 6, 7});
  feed(*expected, {5, 6, 7});
  int stopped = 0;
  for (int round = 0; round < 20; ++round) {
    volatile int cancel = 0;
    kel::Status status;
    std::thread other([&] {
      std::this_thread::sleep_for(std::chrono::microseconds(200 * round));
      __atomic_store_n(&cancel, 1, __ATOMIC_RELAXED);
    });
    const Fed fed = context->feed(tokens(120), nullptr, &cancel, status);
    other.join();
    if (fed == Fed::All) {  // a fast machine, or one that was late to start the other thread
      context->reset();
      feed(*context, {5, 6, 7});
      continue;
    }
    ++stopped;
    ASSERT_EQ(3U, context->position());
  }
  EXPECT_GT(stopped, 0);
  EXPECT_EQ(continued(*expected), continued(*context));
}

TEST(EngineContext, NumbersThatAreNotFiniteFailThePromptAlone) {
  RandomModelSpec spec = oddModel();
  spec.edit = [](std::vector<TensorPlan>& plan) {
    TensorPlan& table = planned(plan, "token_embd.weight");
    std::vector<float> rows(size_t{8} * 40, 0.25F);
    rows[size_t{8} * 13 + 5] = std::numeric_limits<float>::quiet_NaN();
    table.type = kel::QuantType::F32;
    table.data.resize(rows.size() * sizeof(float));
    std::memcpy(table.data.data(), rows.data(), table.data.size());
  };
  const OpenedModel opened(spec);
  const auto context = opened.context();
  kel::Status status;
  for (const std::vector<int32_t>& prompt : {std::vector<int32_t>{1, 13, 2}, {1, 2, 13}}) {
    EXPECT_EQ(Fed::Failed, context->feed(promptTokens(prompt), nullptr, nullptr, status));
    EXPECT_EQ(kel::StatusCode::Corrupted, status.code);
    EXPECT_EQ(
        "the model's numbers run out of range; its weights are damaged or not those of a model",
        status.message);
    EXPECT_EQ(0U, context->position());
  }
}

TEST(EngineContext, ResetMakesItNew) {
  const auto context = sharedModel().context();
  feed(*context, {1, 2, 3});
  ASSERT_TRUE(context->feedToken(5).ok());
  EXPECT_EQ(4U, context->position());
  context->reset();
  EXPECT_EQ(0U, context->position());
  const auto fresh = sharedModel().context();
  EXPECT_EQ(continued(*fresh), continued(*context));
}

}  // namespace
}  // namespace engine
