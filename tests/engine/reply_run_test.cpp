// Replies in steps: what comes out is what one call brings, however the steps are cut.
#include "engine/reply_run.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/engine/engine_models.h"
#include "tests/support/alphabet_vocabulary.h"
#include "tests/support/family_shapes.h"

namespace engine {
namespace {

using kel::Status;
using testing_support::OpenedModel;

constexpr uint64_t kVocab = 300;

const OpenedModel& sharedModel() {
  static const OpenedModel opened({.hidden = 8,
                                   .ffn = 16,
                                   .vocab = kVocab,
                                   .shape = kel::test::oddShape(),
                                   .statesShape = true,
                                   .tokenizer = kel::test::alphabetVocabulary(kVocab)});
  return opened;
}

std::vector<Message> conversation() {
  std::vector<Message> messages(3);
  messages[0].content = "Say a word that nobody knows, and another one.";
  messages[1].role = Role::Assistant;
  messages[1].content = "Frumious. Frabjous.";
  messages[2].content = "And what does that mean?";
  return messages;
}

// No mark: no reply ends by itself.
ReplyOptions withoutMarks(uint64_t maxTokens) {
  ReplyOptions options{.sampling = {.temperature = 1}, .maxTokens = maxTokens};
  for (int32_t id = 0; id < kel::test::kAlphabetMarks; ++id) {
    options.sampling.logitBias[id] = -std::numeric_limits<float>::infinity();
  }
  return options;
}

class ReplyInSteps : public testing::Test {
 protected:
  std::unique_ptr<ReplyRun> run(const ReplyOptions& options, const ReplySinks& sinks = {}) {
    ChatTokens chat;
    const Status status = encodeChat(*sharedModel().model, {.messages = messages}, chat);
    EXPECT_TRUE(status.ok()) << status.message;
    sampler.seed(5);
    reply = {};
    return std::make_unique<ReplyRun>(*context, sampler, std::move(chat), std::span<const Tool>(),
                                      options, sinks, reply);
  }

  Reply atOnce(const ReplyOptions& options) {
    const auto fresh = sharedModel().context({});
    Reply whole;
    Sampler choosing(5);
    const Status status =
        generateReply(*fresh, choosing, {.messages = messages}, options, {}, whole);
    EXPECT_TRUE(status.ok()) << status.message;
    return whole;
  }

  // Reads the prompt in slices and feeds the tokens one by one; the slices.
  size_t drive(ReplyRun& steps, size_t slice) {
    EXPECT_TRUE(steps.begin().ok());
    size_t slices = 0;
    while (steps.state() == ReplyRun::State::Reading) {
      EXPECT_TRUE(steps.read(slice).ok());
      ++slices;
    }
    EXPECT_TRUE(steps.start().ok());
    while (steps.state() == ReplyRun::State::Writing) {
      EXPECT_TRUE(steps.tokenFed(context->feedToken(steps.token())).ok());
    }
    return slices;
  }

  std::vector<Message> messages = conversation();
  std::unique_ptr<Context> context = sharedModel().context({});
  Sampler sampler{1};
  Reply reply;
};

TEST_F(ReplyInSteps, HaveTheTextOfOneCall) {
  const ReplyOptions options = withoutMarks(24);
  const Reply whole = atOnce(options);
  for (const size_t slice : {7U, 1000U}) {
    context->reset();
    const auto steps = run(options);
    const size_t slices = drive(*steps, slice);
    EXPECT_EQ(whole.message.content, reply.message.content);
    EXPECT_EQ(whole.tokens, reply.tokens);
    EXPECT_EQ(ReplyEnd::Limit, reply.end);
    EXPECT_EQ(whole.promptTokens, reply.promptTokens);
    if (slice == 7) {
      EXPECT_LE(whole.promptTokens / 7, slices);
    } else {
      EXPECT_EQ(4U, slices);  // three messages, and what opens the reply
    }
  }
}

// A slice is no place to go back to: those would leave no room for the ends of messages.
TEST_F(ReplyInSteps, ComeBackToEndsOfMessagesHoweverSliced) {
  context = sharedModel().context({.positions = 300, .snapshotBytes = 1});  // two places
  const auto steps = run(withoutMarks(3));
  drive(*steps, 5);
  ChatTokens chat;
  ASSERT_TRUE(encodeChat(*sharedModel().model, {.messages = messages}, chat).ok());
  const auto again = run(withoutMarks(3));
  ASSERT_TRUE(again->begin().ok());
  EXPECT_EQ(chat.ends.back(), reply.reusedTokens);
}

TEST_F(ReplyInSteps, SayHowMuchIsRead) {
  std::vector<size_t> done;
  size_t total = 0;
  ReplySinks sinks;
  sinks.prompt = [&](size_t read, size_t all) {
    done.push_back(read);
    total = all;
  };
  const ReplyOptions options = withoutMarks(1);
  const auto steps = run(options, sinks);
  ASSERT_TRUE(steps->begin().ok());
  const uint64_t unread = steps->unread();
  ASSERT_TRUE(steps->read(10).ok());
  ASSERT_TRUE(steps->read(10).ok());
  EXPECT_EQ((std::vector<size_t>{10, 20}), done);
  EXPECT_EQ(unread, total);
  EXPECT_EQ(unread - 20, steps->unread());
}

TEST_F(ReplyInSteps, AreCutBetweenTwoSlices) {
  volatile int cancel = 0;
  ReplySinks sinks;
  sinks.cancel = &cancel;
  const ReplyOptions options = withoutMarks(5);
  const auto steps = run(options, sinks);
  ASSERT_TRUE(steps->begin().ok());
  ASSERT_TRUE(steps->read(10).ok());
  cancel = 1;
  EXPECT_TRUE(steps->read(10).ok());
  EXPECT_EQ(ReplyRun::State::Over, steps->state());
  EXPECT_EQ(ReplyEnd::Cancelled, reply.end);
  EXPECT_EQ(0U, reply.tokens);
}

TEST_F(ReplyInSteps, TellWhatWasHeldBackWhenTheyAreCut) {
  const std::string two = atOnce(withoutMarks(2)).message.content;
  ReplyOptions options = withoutMarks(50);
  options.stops = {two + "\x01"};  // begins, and never comes
  std::string told;
  ReplySinks sinks;
  sinks.event = [&](const ReplyEvent& event) { told += event.text; };
  const auto steps = run(options, sinks);
  ASSERT_TRUE(steps->begin().ok());
  while (steps->state() == ReplyRun::State::Reading) {
    ASSERT_TRUE(steps->read().ok());
  }
  ASSERT_TRUE(steps->start().ok());
  ASSERT_TRUE(steps->tokenFed(context->feedToken(steps->token())).ok());
  EXPECT_EQ("", told);
  steps->cancel();
  EXPECT_EQ(two, told);
  EXPECT_EQ(told, reply.message.content);
  EXPECT_EQ(ReplyEnd::Cancelled, reply.end);
}

TEST_F(ReplyInSteps, AreOverWhenATokenCouldNotBeFed) {
  const ReplyOptions options = withoutMarks(50);
  const auto steps = run(options);
  ASSERT_TRUE(steps->begin().ok());
  while (steps->state() == ReplyRun::State::Reading) {
    ASSERT_TRUE(steps->read().ok());
  }
  ASSERT_TRUE(steps->start().ok());
  EXPECT_EQ("no", steps->tokenFed(Status::ioError("no")).message);
  EXPECT_EQ(ReplyRun::State::Over, steps->state());
  EXPECT_EQ(atOnce(withoutMarks(1)).message.content, reply.message.content);
}

}  // namespace
}  // namespace engine
