#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/capi/capi_models.h"

namespace {

using namespace capi_test;

// An event with texts of its own.
struct Told {
  int32_t kind;
  std::string text;
  std::string name;
  std::string json;
};

// What a callback is for: told events, and what to answer to each.
struct Listener {
  std::vector<Told> told;
  std::function<int(const ZYMEvent&)> answer;

  static int hear(const ZYMEvent* event, void* userData) {
    auto& self = *static_cast<Listener*>(userData);
    for (const ZYMText& text : {event->text, event->name, event->json}) {
      EXPECT_EQ('\0', text.data == nullptr ? '\0' : text.data[text.size]);
    }
    self.told.push_back(
        {event->kind, stringOf(event->text), stringOf(event->name), stringOf(event->json)});
    return self.answer ? self.answer(*event) : 0;
  }

  // Texts of a kind, joined.
  std::string texts(int32_t kind) const {
    std::string joined;
    for (const Told& event : told) {
      joined += event.kind == kind ? event.text : std::string();
    }
    return joined;
  }
  const Told* find(int32_t kind) const {
    for (const Told& event : told) {
      if (event.kind == kind) {
        return &event;
      }
    }
    return nullptr;
  }
};

// Options of greedy replies that say one token over and over, or any letters at random.
struct Options {
  Options() {
    sampling.structSize = sizeof(sampling);
    record.structSize = sizeof(record);
    record.sampling = &sampling;
  }
  Options(const Options&) = delete;
  Options& operator=(const Options&) = delete;

  Options& always(int32_t id) {
    biases = {{id, 100}};
    return set();
  }
  Options& letters() {
    for (int32_t id = 0; id < static_cast<int32_t>(kVocab); ++id) {
      if (id < 9 || id >= kSpace) {
        biases.push_back({id, -std::numeric_limits<float>::infinity()});
      }
    }
    sampling.temperature = 1;
    return set();
  }
  Options& upTo(uint64_t tokens) {
    record.maxTokens = tokens;
    return *this;
  }
  Options& set() {
    sampling.biases = biases.data();
    sampling.biasCount = biases.size();
    return *this;
  }

  std::vector<ZYMLogitBias> biases;
  ZYMSampling sampling{};
  ZYMReplyOptions record{};
};

class ReplyCalls : public WithModel {
 protected:
  void TearDown() override {
    zym_reply_destroy(reply);
    WithModel::TearDown();
  }

  ZYMStatus ask(const ZYMConversation& conversation, const Options& options) {
    zym_reply_destroy(reply);
    return zym_context_reply(context, &conversation, &options.record, Listener::hear, &listener,
                             &reply, error, sizeof(error));
  }

  std::string answer() const { return stringOf(reply->message->content); }

  const ZYMMessage hello = messageOf(ZYM_ROLE_USER, "A B");
  const Asked asked{&hello};
  Listener listener;
  ZYMReply* reply = nullptr;
};

TEST_F(ReplyCalls, TellAndReturnTheAnswer) {
  Options options;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kLetterA).upTo(3))) << error;
  EXPECT_EQ(sizeof(ZYMReply), reply->structSize);
  EXPECT_EQ(ZYM_END_LIMIT, reply->end);
  EXPECT_EQ(ZYM_ROLE_ASSISTANT, reply->message->role);
  EXPECT_EQ("AAA", answer());
  EXPECT_EQ(nullptr, reply->message->reasoning.data);
  EXPECT_EQ(0U, reply->message->callCount);
  EXPECT_EQ(3U, reply->tokens);
  EXPECT_EQ(0U, reply->reusedTokens);
  EXPECT_EQ("AAA", listener.texts(ZYM_EVENT_ANSWER));
  size_t count = 0;
  zym_model_tokenize_conversation(model, &asked.record, nullptr, 0, &count, nullptr, 0);
  EXPECT_EQ(count, reply->promptTokens);
}

TEST_F(ReplyCalls, TakeTheirMessageAsHistory) {
  Options options;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kLetterA).upTo(3))) << error;
  ZYMReply* const first = reply;
  reply = nullptr;
  const ZYMMessage next = messageOf(ZYM_ROLE_USER, "C");
  const Asked further{&hello, first->message, &next};
  ASSERT_EQ(ZYM_OK, ask(further.record, options)) << error;
  EXPECT_GT(reply->reusedTokens, 0U);
  EXPECT_LT(reply->reusedTokens, reply->promptTokens);
  zym_reply_destroy(first);
}

TEST_F(ReplyCalls, TellOfTheReading) {
  Options options;
  std::vector<std::pair<uint64_t, uint64_t>> steps;
  listener.answer = [&](const ZYMEvent& event) {
    if (event.kind == ZYM_EVENT_PROMPT) {
      steps.emplace_back(event.done, event.total);
    }
    return 0;
  };
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kLetterA).upTo(1))) << error;
  ASSERT_GE(steps.size(), 2U);
  EXPECT_EQ((std::pair<uint64_t, uint64_t>(0, 0)), steps.front());
  EXPECT_EQ((std::pair(reply->promptTokens, reply->promptTokens)), steps.back());
}

TEST_F(ReplyCalls, EndByThemselvesOrAtAStopOrWithTheContext) {
  Options options;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kTurnEnd))) << error;
  EXPECT_EQ(ZYM_END_STOP, reply->end);
  EXPECT_EQ(0U, reply->tokens);

  const ZYMText stops[] = {textOf("B"), textOf("AA")};
  options.record.stops = stops;
  options.record.stopCount = 2;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kLetterA))) << error;
  EXPECT_EQ(ZYM_END_STOP_STRING, reply->end);
  EXPECT_EQ("AA", stringOf(reply->stopString));
  EXPECT_EQ("", answer());

  options.record.stopCount = 0;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  EXPECT_EQ(ZYM_END_CONTEXT_FULL, reply->end);
  EXPECT_EQ(300 - reply->promptTokens + 1, reply->tokens);
}

TEST_F(ReplyCalls, TellReasoningApartAndCloseItAtItsBudget) {
  Options options;
  ZYMConversation thinking = asked.record;
  thinking.thinking = ZYM_THINKING_ON;
  options.record.thinkingTokens = 4;
  ASSERT_EQ(ZYM_OK, ask(thinking, options.always(kLetterA).upTo(30))) << error;
  EXPECT_EQ("AAAA", stringOf(reply->message->reasoning).substr(0, 4));
  EXPECT_EQ(stringOf(reply->message->reasoning), listener.texts(ZYM_EVENT_REASONING));
  EXPECT_EQ(answer(), listener.texts(ZYM_EVENT_ANSWER));
  EXPECT_NE("", answer());

  options.record.thinkingTokens = 0;
  ASSERT_EQ(ZYM_OK, ask(thinking, options.upTo(30))) << error;
  EXPECT_EQ(std::string(30, 'A'), stringOf(reply->message->reasoning));
  EXPECT_EQ("", answer());

  // This model is a small one, which answers at once when nobody asks for more.
  thinking.thinking = ZYM_THINKING_DEFAULT;
  ASSERT_EQ(ZYM_OK, ask(thinking, options.upTo(3))) << error;
  EXPECT_EQ("AAA", answer());
}

TEST_F(ReplyCalls, TellCallsAndReturnThem) {
  kel::test::RandomModelSpec spec = smallModel();
  spec.shape.contextLength = 2000;  // tools take many letters
  open(spec);
  Options options;
  ZYMConversation withTools = asked.record;
  const ZYMText tool =
      textOf(R"({"name": "look", "parameters": {"properties": {"x": {"type": "integer"}}}})");
  withTools.tools = &tool;
  withTools.toolCount = 1;
  ASSERT_EQ(ZYM_OK, ask(withTools, options.always(kWholeCallId).upTo(1))) << error;
  ASSERT_NE(nullptr, listener.find(ZYM_EVENT_CALL_BEGIN));
  EXPECT_EQ("look", listener.find(ZYM_EVENT_CALL_BEGIN)->name);
  ASSERT_NE(nullptr, listener.find(ZYM_EVENT_CALL_ARGUMENT));
  EXPECT_EQ("x", listener.find(ZYM_EVENT_CALL_ARGUMENT)->name);
  EXPECT_EQ("1", listener.find(ZYM_EVENT_CALL_ARGUMENT)->json);
  ASSERT_NE(nullptr, listener.find(ZYM_EVENT_CALL_COMPLETE));
  EXPECT_EQ(R"({"x": 1})", listener.find(ZYM_EVENT_CALL_COMPLETE)->json);
  ASSERT_EQ(1U, reply->message->callCount);
  EXPECT_EQ("look", stringOf(reply->message->calls[0]->name));
  EXPECT_EQ(R"({"x": 1})", stringOf(reply->message->calls[0]->arguments));
  EXPECT_EQ(0U, reply->hasIncompleteCall);

  ZYMReply* const first = reply;
  reply = nullptr;
  const ZYMMessage result = messageOf(ZYM_ROLE_TOOL, "7");
  const Asked further{&hello, first->message, &result};
  EXPECT_EQ(ZYM_OK, ask(further.record, options.always(kTurnEnd))) << error;
  zym_reply_destroy(first);
}

TEST_F(ReplyCalls, TellOfCallsThatAreNotWhole) {
  Options options;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kHalfCallId).upTo(1))) << error;
  ASSERT_NE(nullptr, listener.find(ZYM_EVENT_CALL_INCOMPLETE));
  EXPECT_EQ("look", listener.find(ZYM_EVENT_CALL_INCOMPLETE)->name);
  EXPECT_EQ(1U, reply->hasIncompleteCall);
  EXPECT_EQ(0U, reply->message->callCount);

  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kBrokenCallId).upTo(1))) << error;
  EXPECT_NE(nullptr, listener.find(ZYM_EVENT_CALL_MALFORMED));
  EXPECT_EQ(kBrokenCall, answer());
}

TEST_F(ReplyCalls, TellTokensWithTheirProbabilities) {
  Options options;
  options.record.tellsTokens = 1;
  options.record.bestTokens = 2;
  size_t tokens = 0;
  listener.answer = [&](const ZYMEvent& event) {
    if (event.kind == ZYM_EVENT_TOKEN) {
      ++tokens;
      EXPECT_EQ(kLetterA, event.token.id);
      EXPECT_LT(event.token.logProbability, 0);
      EXPECT_EQ(2U, event.bestCount);
      EXPECT_GE(event.best[0].logProbability, event.best[1].logProbability);
      EXPECT_GE(event.best[0].logProbability, event.token.logProbability);
    }
    return 0;
  };
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kLetterA).upTo(3))) << error;
  EXPECT_EQ(3U, tokens);
  options.record.tellsTokens = 0;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  EXPECT_EQ(3U, tokens);
}

TEST_F(ReplyCalls, ASeedRepeatsAReplyAndADrawnOneIsTold) {
  Options options;
  options.letters().upTo(20);
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  const std::string text = answer();
  const uint64_t seed = reply->seed;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  EXPECT_NE(seed, reply->seed);
  EXPECT_NE(text, answer());
  options.record.hasSeed = 1;
  options.record.seed = seed;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  EXPECT_EQ(text, answer());
  EXPECT_EQ(seed, reply->seed);
  options.record.withoutGuesses = 1;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  EXPECT_EQ(text, answer());
}

// Of two letters that come at random every guess is a coin's.
TEST_F(ReplyCalls, GuessesMayBeLeftOut) {
  Options options;
  for (int32_t id = 0; id < static_cast<int32_t>(kVocab); ++id) {
    if (id != kLetterA && id != kLetterA + 1) {
      options.biases.push_back({id, -std::numeric_limits<float>::infinity()});
    }
  }
  options.set().upTo(60);
  options.sampling.temperature = 1;
  options.record.hasSeed = 1;
  options.record.withoutGuesses = 1;
  ZYMStatistics statistics{};
  statistics.structSize = sizeof(statistics);
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  const std::string text = answer();
  ASSERT_EQ(ZYM_OK, zym_context_statistics(context, &statistics));
  EXPECT_EQ(0U, statistics.rejectedGuesses);
  options.record.withoutGuesses = 0;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  EXPECT_EQ(text, answer());
  ASSERT_EQ(ZYM_OK, zym_context_statistics(context, &statistics));
  EXPECT_GT(statistics.rejectedGuesses, 0U);
}

// One that has no token for it answers as if nobody had asked for thoughts.
TEST_F(ReplyCalls, AModelThatCannotThinkDoesNot) {
  kel::test::RandomModelSpec spec = smallModel();
  spec.tokenizer.tokens[kThinkEnd] = "[NONE]";
  open(spec);
  Options options;
  options.upTo(20);
  options.record.hasSeed = 1;
  options.record.sampling = nullptr;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  const std::string text = answer();
  ZYMConversation thinking = asked.record;
  thinking.thinking = ZYM_THINKING_ON;
  ASSERT_EQ(ZYM_OK, ask(thinking, options)) << error;
  EXPECT_EQ(text, answer());
}

// The settings that are recommended, given or not.
TEST_F(ReplyCalls, WithoutSettingsTakeTheRecommendedOnes) {
  Options options;
  options.upTo(20);
  options.record.hasSeed = 1;
  options.record.seed = 5;
  ZYMConversation conversation = asked.record;
  std::vector<std::string> texts;
  for (const int32_t thinking : {ZYM_THINKING_OFF, ZYM_THINKING_ON}) {
    conversation.thinking = thinking;
    options.record.sampling = nullptr;
    ASSERT_EQ(ZYM_OK, ask(conversation, options)) << error;
    texts.push_back(answer() + stringOf(reply->message->reasoning));
    ASSERT_EQ(ZYM_OK, zym_model_recommended_sampling(model,
                                                     thinking == ZYM_THINKING_ON
                                                         ? ZYM_SAMPLING_THINKING
                                                         : ZYM_SAMPLING_WITHOUT_THINKING,
                                                     &options.sampling));
    options.record.sampling = &options.sampling;
    ASSERT_EQ(ZYM_OK, ask(conversation, options)) << error;
    EXPECT_EQ(texts.back(), answer() + stringOf(reply->message->reasoning));
  }
  EXPECT_NE(texts[0], texts[1]);
}

TEST_F(ReplyCalls, GoOnWithAText) {
  Options options;
  const int32_t ids[] = {kLetterA, kLetterA + 1};
  const auto goOn = [&](const int32_t* prompt, size_t count) {
    zym_reply_destroy(reply);
    return zym_context_continue(context, prompt, count, &options.always(kLetterA).upTo(2).record,
                                Listener::hear, &listener, &reply, error, sizeof(error));
  };
  ASSERT_EQ(ZYM_OK, goOn(ids, 2)) << error;
  EXPECT_EQ("AA", answer());
  EXPECT_EQ(2U, reply->promptTokens);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, goOn(ids, 0));
  EXPECT_EQ(nullptr, reply);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, goOn(nullptr, 1));
  const int32_t none = kVocab;
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, goOn(&none, 1));
  const std::vector<int32_t> many(301, kLetterA);
  EXPECT_EQ(ZYM_ERROR_ROOM, goOn(many.data(), many.size()));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_continue(nullptr, ids, 2, nullptr, nullptr, nullptr,
                                                     &reply, error, sizeof(error)));
}

TEST_F(ReplyCalls, ACallbackCancels) {
  Options options;
  options.always(kLetterA);
  listener.answer = [](const ZYMEvent& event) { return event.kind == ZYM_EVENT_ANSWER ? -1 : 0; };
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  EXPECT_EQ(ZYM_END_CANCELLED, reply->end);
  EXPECT_EQ("A", answer());
  EXPECT_EQ("A", listener.texts(ZYM_EVENT_ANSWER));

  // Nothing is told after that, not even of the same token.
  listener.told.clear();
  listener.answer = [](const ZYMEvent& event) { return event.kind == ZYM_EVENT_CALL_BEGIN; };
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kWholeCallId))) << error;
  EXPECT_EQ(ZYM_END_CANCELLED, reply->end);
  EXPECT_EQ(ZYM_EVENT_CALL_BEGIN, listener.told.back().kind);
  options.always(kLetterA);

  // Before anything is read, too.
  ASSERT_EQ(ZYM_OK, zym_context_reset(context));
  listener.told.clear();
  listener.answer = [](const ZYMEvent&) { return 1; };
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  EXPECT_EQ(ZYM_END_CANCELLED, reply->end);
  EXPECT_EQ(0U, reply->tokens);
  EXPECT_EQ(1U, listener.told.size());

  // It ends one reply alone.
  listener.answer = nullptr;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.upTo(2))) << error;
  EXPECT_EQ(ZYM_END_LIMIT, reply->end);
}

TEST_F(ReplyCalls, AnotherThreadCancels) {
  kel::test::RandomModelSpec spec = smallModel();
  spec.shape.contextLength = 262144;  // enough for a reply to last until somebody ends it
  open(spec);
  Options options;
  std::atomic<bool> begun = false;
  std::thread other([&] {
    begun.wait(false);
    EXPECT_EQ(ZYM_OK, zym_context_cancel(context));
  });
  listener.answer = [&](const ZYMEvent& event) {
    if (event.kind == ZYM_EVENT_ANSWER) {
      begun = true;
      begun.notify_one();
    }
    return 0;
  };
  EXPECT_EQ(ZYM_OK, ask(asked.record, options.always(kLetterA))) << error;
  other.join();
  EXPECT_EQ(ZYM_END_CANCELLED, reply->end);
}

TEST_F(ReplyCalls, ACancelWithoutAReplyDoesNothing) {
  Options options;
  EXPECT_EQ(ZYM_OK, zym_context_cancel(context));
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kLetterA).upTo(2))) << error;
  EXPECT_EQ(ZYM_END_LIMIT, reply->end);
}

TEST_F(ReplyCalls, OfACallbackAreRefusedInItsOwnContext) {
  Options options;
  ZYMContext* second = nullptr;
  ASSERT_EQ(ZYM_OK, zym_context_create(model, nullptr, &second, error, sizeof(error)));
  Options within;
  within.always(kLetterA + 1).upTo(2);
  std::string inner;
  listener.answer = [&](const ZYMEvent& event) {
    if (event.kind != ZYM_EVENT_ANSWER) {
      return 0;
    }
    ZYMReply* none = nullptr;
    ZYMStatistics statistics{};
    statistics.structSize = sizeof(statistics);
    const std::string file = folder.file("saved");
    EXPECT_EQ(ZYM_ERROR_BUSY, zym_context_reply(context, &asked.record, nullptr, nullptr, nullptr,
                                                &none, error, sizeof(error)));
    EXPECT_STREQ("the context is in use by another call", error);
    const int32_t id = kLetterA;
    EXPECT_EQ(ZYM_ERROR_BUSY,
              zym_context_continue(context, &id, 1, nullptr, nullptr, nullptr, &none, nullptr, 0));
    EXPECT_EQ(ZYM_ERROR_BUSY, zym_context_statistics(context, &statistics));
    EXPECT_EQ(ZYM_ERROR_BUSY, zym_context_reset(context));
    EXPECT_EQ(ZYM_ERROR_BUSY, zym_context_save(context, file.c_str(), {}, nullptr, 0));
    EXPECT_EQ(ZYM_ERROR_BUSY, zym_context_load(context, file.c_str(), nullptr, nullptr, 0));
    EXPECT_EQ(ZYM_ERROR_BUSY, zym_context_destroy(context));

    size_t count = 0;
    EXPECT_EQ(ZYM_ERROR_CAPACITY,
              zym_model_tokenize(model, textOf("AB"), 0, nullptr, 0, &count, nullptr, 0));
    EXPECT_EQ(ZYM_OK, zym_context_reply(second, &asked.record, &within.record, nullptr, nullptr,
                                        &none, error, sizeof(error)))
        << error;
    inner = stringOf(none->message->content);
    zym_reply_destroy(none);
    EXPECT_EQ(ZYM_OK, zym_context_cancel(context));
    return 0;
  };
  ASSERT_EQ(ZYM_OK, ask(asked.record, options.always(kLetterA))) << error;
  EXPECT_EQ(ZYM_END_CANCELLED, reply->end);
  EXPECT_EQ("A", answer());
  EXPECT_EQ("BB", inner);
  EXPECT_EQ(ZYM_OK, zym_context_destroy(second));
}

TEST_F(ReplyCalls, OfTwoContextsRunOnTwoThreads) {
  Options options;
  options.letters().upTo(40);
  options.record.hasSeed = 1;
  options.record.seed = 3;
  ASSERT_EQ(ZYM_OK, ask(asked.record, options)) << error;
  const std::string expected = answer();
  std::string texts[2];
  const auto converse = [&](std::string& text) {
    ZYMContext* own = nullptr;
    ZYMReply* told = nullptr;
    EXPECT_EQ(ZYM_OK, zym_context_create(model, nullptr, &own, nullptr, 0));
    EXPECT_EQ(ZYM_OK, zym_context_reply(own, &asked.record, &options.record, nullptr, nullptr,
                                        &told, nullptr, 0));
    text = stringOf(told->message->content);
    zym_reply_destroy(told);
    EXPECT_EQ(ZYM_OK, zym_context_destroy(own));
  };
  std::thread first([&] { converse(texts[0]); });
  std::thread second([&] { converse(texts[1]); });
  first.join();
  second.join();
  EXPECT_EQ(expected, texts[0]);
  EXPECT_EQ(expected, texts[1]);
}

TEST_F(ReplyCalls, RefuseConversationsThatCannotBe) {
  Options options;
  options.always(kLetterA).upTo(1);
  const auto refused = [&](const ZYMConversation& conversation, const std::string& message) {
    EXPECT_EQ(ZYM_ERROR_ARGUMENT, ask(conversation, options));
    EXPECT_EQ(nullptr, reply);
    EXPECT_EQ(message, error);
  };
  const auto refusedMessage = [&](const ZYMMessage& odd, const std::string& message) {
    refused(Asked{&odd}.record, message);
  };
  refused(Asked{}.record, "No messages provided.");
  refused(Asked{&hello, nullptr}.record, "message 1 is null");
  const ZYMMessage system = messageOf(ZYM_ROLE_SYSTEM, "Be brief.");
  refused(Asked{&hello, &system}.record, "System message must be at the beginning.");
  for (const int32_t role : {0, 5, -1}) {
    ZYMMessage odd = hello;
    odd.role = role;
    refusedMessage(odd, "message 0: unknown role " + std::to_string(role));
  }
  refusedMessage(messageOf(ZYM_ROLE_USER, "\xC3"), "message 0: the text is not UTF-8");
  ZYMMessage odd = hello;
  odd.content.data = nullptr;
  refusedMessage(odd, "message 0 is null");
  odd = hello;
  odd.reasoning = textOf("I think");
  refusedMessage(odd, "message 0: only assistants have reasoning and calls");
  odd.role = ZYM_ROLE_ASSISTANT;
  odd.reasoning = textOf("\xFF");
  refusedMessage(odd, "message 0: the text is not UTF-8");
  odd = hello;
  odd.callCount = 1;
  refusedMessage(odd, "calls is null");

  ZYMConversation conversation = asked.record;
  conversation.messages = nullptr;
  refused(conversation, "messages is null");
  conversation = asked.record;
  conversation.thinking = 3;
  refused(conversation, "conversation: unknown kind of thinking 3");
  conversation = asked.record;
  conversation.toolCount = 1;
  refused(conversation, "tools is null");
  const ZYMText tool = textOf("no JSON");
  conversation.tools = &tool;
  refused(conversation, "chat: a tool is not a JSON object");
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_reply(context, nullptr, nullptr, nullptr, nullptr,
                                                  &reply, error, sizeof(error)));
  EXPECT_STREQ("conversation is null", error);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_reply(nullptr, &asked.record, nullptr, nullptr, nullptr,
                                                  &reply, error, sizeof(error)));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_reply(context, &asked.record, nullptr, nullptr, nullptr,
                                                  nullptr, error, sizeof(error)));
}

TEST_F(ReplyCalls, RefuseCallsThatCannotBe) {
  Options options;
  ZYMToolCall call{};
  call.structSize = sizeof(call);
  call.name = textOf("look");
  call.arguments = textOf("[1]");
  const ZYMToolCall* const calls[] = {&call, nullptr};
  ZYMMessage caller = messageOf(ZYM_ROLE_ASSISTANT, "");
  caller.calls = calls;
  caller.callCount = 1;
  const Asked history{&hello, &caller};
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, ask(history.record, options));
  EXPECT_STREQ("chat: the arguments of a tool call are not a JSON object", error);
  call.arguments = textOf("\xFF");
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, ask(history.record, options));
  EXPECT_STREQ("the arguments of a call: the text is not UTF-8", error);
  call.arguments = textOf("{}");
  caller.callCount = 2;
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, ask(history.record, options));
  EXPECT_STREQ("call is null", error);
}

TEST_F(ReplyCalls, RefuseOptionsThatCannotBe) {
  const auto refused = [&](const Options& options, const std::string& message) {
    EXPECT_EQ(ZYM_ERROR_ARGUMENT, ask(asked.record, options));
    EXPECT_EQ(message, error);
  };
  Options options;
  options.sampling.temperature = -1;
  refused(options, "sampler: temperature must be a number from 0, not -1");
  options.sampling.temperature = 0;
  options.sampling.topK = -1;
  refused(options, "sampling: top-k must be a whole number from 0, not -1");
  options.sampling.topK = 0;
  refused(options.always(kVocab),
          "sampler: logit bias for token 160, but the ids go from 0 to 159");
  options.sampling.biases = nullptr;
  refused(options, "biases is null");
  options.biases.clear();
  options.set();
  ZYMText stop{};
  options.record.stops = &stop;
  options.record.stopCount = 1;
  refused(options, "options: a stop is empty");
  stop = textOf("\xFF");
  refused(options, "a stop: the text is not UTF-8");
  options.record.stops = nullptr;
  refused(options, "stops is null");
  options.record.stopCount = 0;
  options.record.bestTokens = 1001;
  refused(options, "options: at most 1000 best tokens, not 1001");
  options.record.bestTokens = 0;
  options.sampling.structSize = 0;
  EXPECT_EQ(ZYM_ERROR_RECORD, ask(asked.record, options));
}

TEST_F(ReplyCalls, SayWhereTheContextIsTooSmall) {
  Options options;
  const std::string text(400, 'A');
  const ZYMMessage longMessage = messageOf(ZYM_ROLE_USER, text);
  EXPECT_EQ(ZYM_ERROR_ROOM, ask(Asked{&longMessage}.record, options));
  EXPECT_EQ(nullptr, reply);
  EXPECT_TRUE(std::string(error).ends_with("tokens, the context has 300 positions")) << error;
  EXPECT_EQ(ZYM_OK, ask(asked.record, options.always(kTurnEnd))) << error;
}

TEST_F(ReplyCalls, SayWhereTheNumbersRunOut) {
  kel::test::RandomModelSpec spec = smallModel();
  spec.edit = [](std::vector<kel::test::TensorPlan>& plan) {
    kel::test::TensorPlan& norm = kel::test::planned(plan, "output_norm.weight");
    norm.low = norm.high = std::numeric_limits<float>::infinity();
  };
  open(spec);
  Options options;
  EXPECT_EQ(ZYM_ERROR_NUMBERS, ask(asked.record, options));
  ZYMStatistics statistics{};
  statistics.structSize = sizeof(statistics);
  EXPECT_EQ(ZYM_OK, zym_context_statistics(context, &statistics));
  EXPECT_EQ(0U, statistics.filled);
}

// Numbers that only a token of the reply brings: nothing can be read behind it, so it goes.
TEST_F(ReplyCalls, AContextWhoseNumbersRunOutIsEmptied) {
  constexpr int32_t kBad = kLetterA + 'Z' - 'A';
  kel::test::RandomModelSpec spec = smallModel();
  spec.shape.ownOutput = true;
  spec.edit = [](std::vector<kel::test::TensorPlan>& plan) {
    kel::test::TensorPlan& rows = kel::test::planned(plan, "token_embd.weight");
    rows.data = kel::test::tensorBytes(rows, 1);
    const float infinite = std::numeric_limits<float>::infinity();
    std::memcpy(rows.data.data() + kBad * 8 * sizeof(float), &infinite, sizeof(infinite));
  };
  open(spec);
  Options options;
  EXPECT_EQ(ZYM_ERROR_NUMBERS, ask(asked.record, options.always(kBad).upTo(5)));
  EXPECT_EQ("Z", listener.texts(ZYM_EVENT_ANSWER));
  ZYMStatistics statistics{};
  statistics.structSize = sizeof(statistics);
  EXPECT_EQ(ZYM_OK, zym_context_statistics(context, &statistics));
  EXPECT_EQ(0U, statistics.filled);
}

// A callback of C++ that throws breaks its promise, and yet nothing gets out.
TEST_F(ReplyCalls, HoldBackWhatACallbackThrows) {
  Options options;
  listener.answer = [](const ZYMEvent& event) -> int {
    return event.kind == ZYM_EVENT_ANSWER ? throw std::runtime_error("out") : 0;
  };
  EXPECT_EQ(ZYM_ERROR_INTERNAL, ask(asked.record, options.always(kLetterA)));
  EXPECT_EQ(nullptr, reply);
  ZYMStatistics statistics{};
  statistics.structSize = sizeof(statistics);
  EXPECT_EQ(ZYM_OK, zym_context_statistics(context, &statistics));
  EXPECT_EQ(0U, statistics.filled);
  listener.answer = nullptr;
  EXPECT_EQ(ZYM_OK, ask(asked.record, options.upTo(2))) << error;
  EXPECT_EQ("AA", answer());
}

}  // namespace
