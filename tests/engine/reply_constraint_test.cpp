// Replies whose answer must have a form: here, one word of letters.
#include "engine/reply_constraint.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/reply.h"
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

int32_t idOf(const std::string& token) {
  return sharedModel().model->tokenizer().tokenToId(token);
}

// Letter by letter, then the end of the turn.
class OneWord : public ReplyConstraint {
 public:
  explicit OneWord(std::string letters) : word(std::move(letters)) {}

  void allowed(TokenMask& mask) override {
    EXPECT_EQ(kVocab, mask.size());
    mask.setAll(false);
    mask.allow(static_cast<size_t>(expected()));
    ++asked;
  }

  void accept(int32_t id) override {
    EXPECT_EQ(expected(), id);
    ++place;
    EXPECT_EQ(place, asked);
  }

  size_t asked = 0;

 private:
  int32_t expected() const {
    return place < word.size() ? idOf(word.substr(place, 1)) : idOf("<|im_end|>");
  }

  std::string word;
  size_t place = 0;
};

class ConstrainedReply : public testing::Test {
 protected:
  Status ask(ReplyConstraint& constraint, bool thinking = false) {
    options.constraint = &constraint;
    options.sampling.temperature = 1;
    const std::vector<Message> messages(1, [] {
      Message made;
      made.content = "Hi";
      return made;
    }());
    context->reset();
    sampler.seed(2);
    return generateReply(*context, sampler, {.messages = messages, .thinking = thinking}, options,
                         {}, reply);
  }

  std::unique_ptr<Context> context = sharedModel().context({});
  Sampler sampler{1};
  ReplyOptions options;
  Reply reply;
};

TEST_F(ConstrainedReply, HasTheForm) {
  OneWord constraint("yes");
  ASSERT_TRUE(ask(constraint).ok());
  EXPECT_EQ("yes", reply.message.content);
  EXPECT_EQ(ReplyEnd::Stop, reply.end);
  EXPECT_EQ(4U, constraint.asked);
}

TEST_F(ConstrainedReply, ReasonsFreelyUntilItsBudgetEnds) {
  for (int32_t id = 0; id < kel::test::kAlphabetMarks; ++id) {
    options.sampling.logitBias[id] = -100;
  }
  options.thinkingTokens = 10;
  OneWord constraint("yes");
  ASSERT_TRUE(ask(constraint, /*thinking=*/true).ok());
  EXPECT_LE(10U, reply.message.reasoningContent.value_or("").size());
  EXPECT_EQ("yes", reply.message.content);
  EXPECT_EQ(4U, constraint.asked);
}

TEST_F(ConstrainedReply, BeginsRightBehindTheTokenThatClosesReasoning) {
  options.sampling.logitBias[idOf("</think>")] = 100;
  OneWord constraint("no");
  ASSERT_TRUE(ask(constraint, /*thinking=*/true).ok());
  EXPECT_EQ("no", reply.message.content);
  EXPECT_EQ(3U, reply.tokens);
  EXPECT_EQ(3U, constraint.asked);
}

// "<think>" in front of an answer opens reasoning otherwise, which would be free.
TEST_F(ConstrainedReply, StaysConstrainedWhateverItSpells) {
  OneWord constraint("<think>yes");
  options.thinkingTokens = 1;
  ASSERT_TRUE(ask(constraint).ok());
  EXPECT_EQ("yes", reply.message.reasoningContent.value_or(""));
  EXPECT_EQ(11U, constraint.asked);
}

TEST_F(ConstrainedReply, IsSubjectToTheMaskOfTheSamplingToo) {
  TokenMask mask(kVocab);
  options.sampling.mask = &mask;
  OneWord free("yes");
  EXPECT_TRUE(ask(free).ok());
  mask.ban(static_cast<size_t>(idOf("e")));
  OneWord hindered("yes");
  EXPECT_EQ("no token can be chosen: all are banned", ask(hindered).message);
  EXPECT_EQ("y", reply.message.content);
}

TEST_F(ConstrainedReply, IsGuessedAheadWithTheSameText) {
  const std::string word = "abcdefabxabcdefabxabcdefabx";
  for (const bool guesses : {false, true}) {
    options.guesses = guesses;
    OneWord constraint(word);
    ASSERT_TRUE(ask(constraint).ok());
    EXPECT_EQ(word, reply.message.content);
    EXPECT_EQ(word.size() + 1, constraint.asked);
    // The first guess, which is always looked at, is the "c" behind the second "ab".
    EXPECT_EQ(guesses, context->statistics().rejectedGuesses > 0);
  }
}

}  // namespace
}  // namespace engine
