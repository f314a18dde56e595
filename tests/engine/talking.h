// Conversations with random models: messages, and replies that are letters and nothing else, so
// that their texts become the same tokens again.
#pragma once

#include <gtest/gtest.h>

#include <limits>
#include <span>
#include <string>
#include <vector>

#include "engine/reply.h"
#include "tests/engine/engine_models.h"
#include "tests/support/alphabet_vocabulary.h"

namespace engine::testing_support {

constexpr uint64_t kTalkingVocab = 300;

inline kel::test::RandomModelSpec talkingModel(const kel::ModelShape& shape) {
  return {.hidden = 8,
          .ffn = 16,
          .vocab = kTalkingVocab,
          .shape = shape,
          .statesShape = true,
          .tokenizer = kel::test::alphabetVocabulary(kTalkingVocab)};
}

inline Message message(Role role, const std::string& content) {
  Message made;
  made.role = role;
  made.content = content;
  return made;
}

inline Message user(const std::string& content) {
  return message(Role::User, content);
}

// Draws among the letters from "a" to "z": neither marks nor white space, so that a reply ends at
// its limit alone.
inline ReplyOptions lettersOnly(uint64_t maxTokens) {
  ReplyOptions options{.sampling = {.temperature = 1}, .maxTokens = maxTokens};
  for (int32_t id = 0; id < static_cast<int32_t>(kTalkingVocab); ++id) {
    const int32_t letter = id - kel::test::kAlphabetMarks + '!';
    if (letter < 'a' || letter > 'z') {
      options.sampling.logitBias[id] = -std::numeric_limits<float>::infinity();
    }
  }
  return options;
}

inline ChatTokens tokensOf(const Model& model, const ChatRequest& request) {
  ChatTokens chat;
  const kel::Status status = encodeChat(model, request, chat);
  EXPECT_TRUE(status.ok()) << status.message;
  return chat;
}

// A reply with random numbers that begin anew.
inline Reply ask(Context& context, const ChatRequest& request, const ReplyOptions& options,
                 uint64_t seed = 1, const ReplySinks& sinks = {}) {
  Sampler sampler(seed);
  Reply reply;
  const kel::Status status = generateReply(context, sampler, request, options, sinks, reply);
  EXPECT_TRUE(status.ok()) << status.message;
  return reply;
}

}  // namespace engine::testing_support
