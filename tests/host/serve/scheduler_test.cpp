// Many callers of one model: whoever comes when, each gets what it would get alone.
#include "host/serve/scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "engine/chat_tokens.h"
#include "engine/reply.h"
#include "tests/engine/engine_models.h"
#include "tests/support/alphabet_vocabulary.h"
#include "tests/support/family_shapes.h"

namespace zym {
namespace {

using engine::Message;
using engine::Reply;
using engine::ReplyEnd;
using engine::Role;
using engine::testing_support::OpenedModel;
using kel::Status;
using namespace std::chrono_literals;

constexpr uint64_t kVocab = 300;
constexpr uint64_t kPositions = 1500;

const OpenedModel& sharedModel() {
  static const OpenedModel opened([] {
    kel::test::RandomModelSpec spec = {.hidden = 8,
                                       .ffn = 16,
                                       .vocab = kVocab,
                                       .shape = kel::test::oddShape(),
                                       .statesShape = true,
                                       .tokenizer = kel::test::alphabetVocabulary(kVocab)};
    spec.shape.contextLength = 5000;
    spec.shape.ownOutput = true;
    // "~" is a damaged token: numbers behind it are not finite.
    const auto& tokens = spec.tokenizer.tokens;
    const auto damaged =
        static_cast<size_t>(std::find(tokens.begin(), tokens.end(), "~") - tokens.begin());
    spec.edit = [damaged](std::vector<kel::test::TensorPlan>& plan) {
      kel::test::TensorPlan& rows = kel::test::planned(plan, "token_embd.weight");
      rows.data = kel::test::tensorBytes(rows, 1);
      const std::vector<float> row(rows.dims[0], std::nanf(""));
      std::memcpy(rows.data.data() + damaged * row.size() * sizeof(float), row.data(),
                  row.size() * sizeof(float));
    };
    return spec;
  }());
  return opened;
}

int32_t idOf(const std::string& token) {
  return sharedModel().model->tokenizer().tokenToId(token);
}

Message message(Role role, const std::string& content) {
  Message made;
  made.role = role;
  made.content = content;
  return made;
}

// Words without end.
GenerationRequest ask(std::vector<Message> messages, uint64_t maxTokens, uint64_t seed = 1) {
  GenerationRequest request;
  request.messages = std::move(messages);
  request.options.sampling.temperature = 1;
  request.options.maxTokens = maxTokens;
  request.seed = seed;
  for (int32_t id = 0; id < kel::test::kAlphabetMarks; ++id) {
    request.options.sampling.logitBias[id] = -std::numeric_limits<float>::infinity();
  }
  request.options.sampling.logitBias[idOf("~")] = -std::numeric_limits<float>::infinity();
  return request;
}

GenerationRequest ask(const std::string& content, uint64_t maxTokens, uint64_t seed = 1) {
  return ask(std::vector<Message>{message(Role::User, content)}, maxTokens, seed);
}

engine::ChatTokens tokensOf(const std::vector<Message>& messages) {
  engine::ChatTokens chat;
  const Status status = engine::encodeChat(*sharedModel().model, {.messages = messages}, chat);
  EXPECT_TRUE(status.ok()) << status.message;
  return chat;
}

// What the request brings without a scheduler, in a context of its own.
std::string alone(const GenerationRequest& request) {
  const auto context = sharedModel().context({.positions = kPositions});
  engine::Sampler sampler(request.seed);
  Reply reply;
  const Status status =
      request.messages.empty()
          ? engine::generateText(*context, sampler, request.prompt, request.options, {}, reply)
          : engine::generateReply(*context, sampler, {.messages = request.messages},
                                  request.options, {}, reply);
  EXPECT_TRUE(status.ok()) << status.message;
  return reply.message.content;
}

// A thread that waits here until it is let through.
class Gate {
 public:
  void open() {
    const std::lock_guard lock(mutex);
    isOpen = true;
    changed.notify_all();
  }
  void pass() {
    std::unique_lock lock(mutex);
    isReached = true;
    changed.notify_all();
    changed.wait(lock, [this] { return isOpen; });
  }
  void waitUntilReached() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return isReached; });
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  bool isOpen = false;
  bool isReached = false;
};

// What callers are told, in the order of all.
class Log {
 public:
  void add(const std::string& line) {
    const std::lock_guard lock(mutex);
    lines.push_back(line);
  }
  std::vector<std::string> all() const {
    const std::lock_guard lock(mutex);
    return lines;
  }

 private:
  mutable std::mutex mutex;
  std::vector<std::string> lines;
};

class Caller : public GenerationSink {
 public:
  explicit Caller(std::string callerName = "", Log* callerLog = nullptr)
      : name(std::move(callerName)), log(callerLog) {}

  void started(const GenerationStart& start) override {
    EXPECT_FALSE(isStarted);
    note("started");
    isStarted = true;
    prompt = start.promptTokens;
    cached = start.cachedTokens;
    queueSeconds = start.queueSeconds;
  }
  void event(size_t choice, const engine::ReplyEvent& event) override {
    EXPECT_TRUE(isStarted);
    told.resize(std::max(told.size(), choice + 1));
    told[choice] += event.text;
    if (onEvent) {
      onEvent();
    }
  }
  void token(size_t choice, const engine::LogProbabilities& chosen) override {
    EXPECT_EQ(0U, choice);
    probabilities.push_back(chosen);
  }
  void finished(size_t choice, const Reply& reply) override {
    note("finished");
    replies.resize(std::max(replies.size(), choice + 1));
    replies[choice] = reply;
    ++ends;
  }
  void done() override {
    note("done");
    end({});
  }
  void failed(GenerationFault fault, std::string_view message) override {
    note("failed");
    end({fault, std::string(message)});
  }
  const volatile int* cancel() const override { return &flag; }

  // Any thread.
  void goAway() { __atomic_store_n(&flag, 1, __ATOMIC_RELAXED); }
  void wait() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return isOver; });
  }
  struct Outcome {
    std::optional<GenerationFault> fault = {};
    std::string message = {};

    bool ok() const { return !fault; }
  };
  Outcome outcome() {
    wait();
    return result;
  }
  std::string text(size_t choice = 0) {
    const Outcome reached = outcome();
    EXPECT_TRUE(reached.ok()) << reached.message;
    EXPECT_LT(choice, replies.size());
    EXPECT_EQ(told.at(choice), replies.at(choice).message.content);
    return told.at(choice);
  }

  // Of the scheduler's thread, until it is over.
  std::function<void()> onEvent;
  bool isStarted = false;
  uint64_t prompt = 0;
  uint64_t cached = 0;
  double queueSeconds = 0;
  size_t ends = 0;
  std::vector<std::string> told;
  std::vector<Reply> replies;
  std::vector<engine::LogProbabilities> probabilities;

 private:
  void note(const std::string& what) {
    if (log != nullptr) {
      log->add(name + " " + what);
    }
  }
  void end(const Outcome& reached) {
    const std::lock_guard lock(mutex);
    EXPECT_FALSE(isOver);
    result = reached;
    isOver = true;
    changed.notify_all();
  }

  std::string name;
  Log* log;
  volatile int flag = 0;
  std::mutex mutex;
  std::condition_variable changed;
  bool isOver = false;
  Outcome result;
};

class SchedulerTest : public testing::Test {
 protected:
  void start(size_t parallel, size_t queueLength = 64) {
    const SchedulerOptions options = {.parallel = parallel,
                                      .queueLength = queueLength,
                                      .context = {.positions = kPositions, .threads = 2}};
    const Status status = Scheduler::create(sharedModel().model, options, scheduler);
    ASSERT_TRUE(status.ok()) << status.message;
  }

  std::shared_ptr<Caller> submit(GenerationRequest request, const std::string& name = "") {
    auto caller = std::make_shared<Caller>(name, &log);
    submit(std::move(request), caller);
    return caller;
  }
  void submit(GenerationRequest request, const std::shared_ptr<Caller>& caller) {
    EXPECT_EQ(Submission::Accepted, scheduler->submit(std::move(request), caller));
  }

  // One that writes until the gate is opened, and then a little longer.
  std::shared_ptr<Caller> submitHeld(const std::string& name = "held") {
    auto caller = std::make_shared<Caller>(name, &log);
    caller->onEvent = [this] { gate.pass(); };
    submit(ask("Hold on", 40), caller);
    gate.waitUntilReached();
    return caller;
  }

  void waitUntilIdle() { EXPECT_TRUE(scheduler->waitUntilIdle(60s)); }

  Log log;
  Gate gate;
  std::unique_ptr<Scheduler> scheduler;
};

TEST_F(SchedulerTest, ARequestGetsItsReply) {
  start(1);
  const GenerationRequest request = ask("Hello", 20);
  const auto caller = submit(request);
  EXPECT_EQ(alone(request), caller->text());
  EXPECT_EQ(tokensOf(request.messages).tokens.size(), caller->prompt);
  EXPECT_EQ(0U, caller->cached);
  EXPECT_EQ(ReplyEnd::Limit, caller->replies[0].end);
  EXPECT_TRUE(caller->probabilities.empty());
  waitUntilIdle();
  const SchedulerStatistics counts = scheduler->statistics();
  EXPECT_EQ(1U, counts.accepted);
  EXPECT_EQ(1U, counts.completed);
  EXPECT_EQ(caller->prompt, counts.promptTokens);
  EXPECT_EQ(caller->prompt, counts.readTokens);
  EXPECT_EQ(20U, counts.replyTokens);
  EXPECT_LT(0, counts.prefillSeconds);
  EXPECT_LT(0, counts.decodeSeconds);
  EXPECT_EQ(kPositions, counts.positions);
  EXPECT_LE(caller->prompt + 19, counts.positionsUsed);
  EXPECT_LT(0U, counts.snapshotBytes);
  EXPECT_EQ(0U, counts.running + counts.waiting);
}

TEST_F(SchedulerTest, ATextIsGoneOnWith) {
  start(1);
  GenerationRequest request = ask(std::vector<Message>(), 10);
  sharedModel().model->textEncoder().encode("Once upon a time", request.prompt);
  EXPECT_EQ(alone(request), submit(request)->text());
  const Caller::Outcome nothing = submit(ask(std::vector<Message>(), 10))->outcome();
  EXPECT_EQ(GenerationFault::Request, nothing.fault);
  EXPECT_EQ("there is no text to go on with", nothing.message);
}

TEST_F(SchedulerTest, RequestsAreTakenUpInTheOrderOfTheirArrival) {
  start(1);
  const auto held = submitHeld();
  std::vector<std::shared_ptr<Caller>> callers;
  for (const char* name : {"a", "b", "c"}) {
    callers.push_back(submit(ask("Hello", 2), name));
  }
  EXPECT_EQ(3U, scheduler->statistics().waiting);
  EXPECT_EQ(1U, scheduler->statistics().running);
  gate.open();
  callers.back()->wait();
  EXPECT_EQ((std::vector<std::string>{"held started", "held finished", "held done", "a started",
                                      "a finished", "a done", "b started", "b finished", "b done",
                                      "c started", "c finished", "c done"}),
            log.all());
}

TEST_F(SchedulerTest, TimesInTheLineAndToTheFirstTokenAreKept) {
  start(1);
  const auto held = submitHeld();
  const auto waiting = submit(ask("Hello", 2));
  const auto arrival = std::chrono::steady_clock::now();
  const auto gone = submit(ask("Hello", 2));
  gone->goAway();
  const auto tooLong = submit(ask(std::string(kPositions, 'x'), 5));
  std::this_thread::sleep_for(20ms);
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - arrival;
  gate.open();
  waiting->wait();
  tooLong->wait();
  waitUntilIdle();
  EXPECT_GE(waiting->queueSeconds, waited.count());
  EXPECT_LT(held->queueSeconds, waiting->queueSeconds);
  const SchedulerStatistics counts = scheduler->statistics();
  EXPECT_EQ(3U, counts.queueTimes.count()) << "one left the line by itself";
  EXPECT_GE(counts.queueTimes.seconds(), held->queueSeconds + waiting->queueSeconds);
  EXPECT_EQ(2U, counts.firstTokenTimes.count()) << "one could not be fulfilled";
  EXPECT_GE(counts.firstTokenTimes.seconds(), waiting->queueSeconds);
}

TEST_F(SchedulerTest, TheLineHasABound) {
  start(1, /*queueLength=*/2);
  const auto held = submitHeld();
  submit(ask("Hello", 2));
  const auto last = submit(ask("Hello", 2));
  const auto tooLate = std::make_shared<Caller>();
  EXPECT_EQ(Submission::QueueFull, scheduler->submit(ask("Hello", 2), tooLate));
  gate.open();
  last->wait();
  waitUntilIdle();
  EXPECT_EQ(alone(ask("Hello", 2)), submit(ask("Hello", 2))->text());
  EXPECT_EQ(1U, scheduler->statistics().queueFull);
  EXPECT_EQ(4U, scheduler->statistics().accepted);
}

TEST_F(SchedulerTest, TheTimeUntilThereIsRoomFollowsTheRequests) {
  start(1);
  EXPECT_EQ(1s, scheduler->untilRoom());
  const auto held = submitHeld();
  std::this_thread::sleep_for(1050ms);
  gate.open();
  held->wait();
  waitUntilIdle();
  EXPECT_LE(2s, scheduler->untilRoom());
}

TEST_F(SchedulerTest, ATextDependsNeitherOnCompanyNorOnWhatWasRead) {
  start(3);
  std::vector<GenerationRequest> requests;
  for (uint64_t i = 0; i < 6; ++i) {
    requests.push_back(
        ask("Tell me " + std::string(40 * i, 'x') + " and more", 15 + 6 * i, 100 + i));
    requests.back().options.guesses = i % 2 == 0;
  }
  std::vector<std::string> expected;
  for (const GenerationRequest& request : requests) {
    expected.push_back(alone(request));
  }
  const auto held = submitHeld();
  for (int round = 0; round < 2; ++round) {
    std::vector<std::shared_ptr<Caller>> callers;
    for (const GenerationRequest& request : requests) {
      callers.push_back(submit(request));
    }
    gate.open();
    for (size_t i = 0; i < requests.size(); ++i) {
      EXPECT_EQ(expected[i], callers[i]->text()) << i;
    }
    waitUntilIdle();
    const SchedulerStatistics counts = scheduler->statistics();
    if (round == 0) {  // where all are there before the first turn
      EXPECT_LT(counts.passes, counts.replyTokens * 2 / 3) << "some are shared";
    }
  }
  EXPECT_EQ(alone(ask("Hold on", 40)), held->text());
}

TEST_F(SchedulerTest, AConversationIsNotReadTwice) {
  start(2);
  const std::vector<Message> first = {message(Role::User, "What is new?")};
  const std::vector<Message> other = {message(Role::User, "Who goes there?")};
  const auto a = submit(ask(first, 5));
  const std::string answer = a->text();
  submit(ask(other, 5))->wait();
  std::vector<Message> next = first;
  next.push_back(message(Role::Assistant, answer));
  next.push_back(message(Role::User, "And then?"));
  const GenerationRequest longer = ask(next, 150);  // than its prompt
  const auto b = submit(longer);
  EXPECT_EQ(alone(longer), b->text());
  EXPECT_LT(b->prompt, 150U);
  EXPECT_EQ(tokensOf(first).ends.back(), b->cached);
  // It stays where it is, and leaves the other conversation its place.
  const auto c = submit(ask(next, 5));
  c->wait();
  EXPECT_EQ(tokensOf(next).ends.back(), c->cached);
  const auto again = submit(ask(other, 5));
  again->wait();
  EXPECT_EQ(tokensOf(other).ends.back(), again->cached);
  EXPECT_EQ(3U, scheduler->statistics().cacheHits);
  EXPECT_EQ(b->cached + c->cached + again->cached, scheduler->statistics().cachedTokens);
}

// The one that holds the beginning is writing: it goes on undisturbed.
TEST_F(SchedulerTest, ABeginningIsTakenOverFromABusyConversation) {
  start(2);
  const Message system = message(Role::System, "Answer in a single word, " + std::string(50, 'x'));
  const std::vector<Message> one = {system, message(Role::User, "What is new?")};
  const std::vector<Message> two = {system, message(Role::User, "Who goes there?")};
  auto writer = std::make_shared<Caller>();
  writer->onEvent = [this] { gate.pass(); };
  submit(ask(one, 30), writer);
  gate.waitUntilReached();
  const auto branch = submit(ask(two, 10));
  gate.open();
  EXPECT_EQ(alone(ask(two, 10)), branch->text());
  EXPECT_EQ(tokensOf(two).ends.front(), branch->cached);
  EXPECT_EQ(alone(ask(one, 30)), writer->text());
}

// Conversation after conversation with one system message: what they share alone is no reason to
// give up the rest.
TEST_F(SchedulerTest, AConversationIsKeptForItsCallerWhileThereIsRoom) {
  start(2);
  const Message system = message(Role::System, "Be kind.");
  const std::vector<Message> one = {system, message(Role::User, std::string(80, 'a'))};
  const std::vector<Message> two = {system, message(Role::User, std::string(80, 'b'))};
  submit(ask(one, 5))->wait();
  const auto second = submit(ask(two, 5));
  second->wait();
  EXPECT_EQ(tokensOf(two).ends.front(), second->cached);
  for (const std::vector<Message>& messages : {one, two}) {
    const auto again = submit(ask(messages, 5));
    again->wait();
    EXPECT_EQ(tokensOf(messages).ends.back(), again->cached);
  }
}

TEST_F(SchedulerTest, ChoicesHaveThePromptInCommon) {
  GenerationRequest request = ask("Name three", 12, 50);
  request.choices = 3;
  std::vector<std::string> expected;
  for (uint64_t i = 0; i < 3; ++i) {
    expected.push_back(alone(ask("Name three", 12, 50 + i)));
  }
  const engine::ChatTokens chat = tokensOf(request.messages);
  for (const size_t parallel : {4U, 2U, 1U}) {
    start(parallel);
    const auto caller = submit(request);
    for (size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(expected[i], caller->text(i)) << parallel;
    }
    EXPECT_EQ(3U, caller->ends);
    waitUntilIdle();
    const SchedulerStatistics counts = scheduler->statistics();
    EXPECT_EQ(chat.tokens.size(), counts.promptTokens);
    // Where there is no room for all at once, what opens a reply is read again.
    const size_t opening = chat.tokens.size() - chat.ends.back();
    const size_t late = parallel >= 3 ? 0 : 3 - parallel;
    EXPECT_EQ(chat.tokens.size() + late * opening, counts.readTokens);
    EXPECT_EQ(1U, counts.completed);
    if (late == 0) {
      EXPECT_EQ(11U, counts.passes);  // side by side, and of the last token there is none
    }
  }
}

TEST_F(SchedulerTest, ChoicesOfATextReadItsLastTokenAgainAtMost) {
  GenerationRequest request = ask(std::vector<Message>(), 6, 50);
  sharedModel().model->textEncoder().encode(std::string(100, 'q') + "uack", request.prompt);
  request.choices = 2;
  start(1);
  const auto caller = submit(request);
  GenerationRequest second = request;
  second.seed = 51;
  EXPECT_EQ(alone(request), caller->text(0));
  EXPECT_EQ(alone(second), caller->text(1));
  waitUntilIdle();
  EXPECT_EQ(request.prompt.size() + 1, scheduler->statistics().readTokens);
}

TEST_F(SchedulerTest, ChoicesComeBeforeRequestsThatCameLater) {
  start(1);
  const auto held = submitHeld();
  GenerationRequest both = ask("Twice", 2);
  both.choices = 2;
  submit(both, "both");
  const auto last = submit(ask("Once", 2), "last");
  gate.open();
  last->wait();
  const std::vector<std::string> lines = log.all();
  EXPECT_EQ((std::vector<std::string>{"both started", "both finished", "both finished", "both done",
                                      "last started", "last finished", "last done"}),
            std::vector<std::string>(lines.begin() + 3, lines.end()));
}

TEST_F(SchedulerTest, ACallerThatGoesAwayLeavesTheLine) {
  start(1);
  Gate inside;
  const auto held = std::make_shared<Caller>("held", &log);
  size_t events = 0;
  std::shared_ptr<Caller> gone;
  held->onEvent = [&] {
    if (++events == 1) {
      inside.pass();
    }
  };
  submit(ask("Hold on", 40), held);
  inside.waitUntilReached();
  GenerationRequest both = ask("Hello", 2);
  both.choices = 2;
  gone = submit(both, "gone");
  const auto stays = submit(ask("Hello", 2), "stays");
  gone->goAway();
  inside.open();
  EXPECT_TRUE(gone->outcome().ok());
  EXPECT_EQ(2U, gone->ends);
  EXPECT_EQ(ReplyEnd::Cancelled, gone->replies[1].end);
  EXPECT_EQ(alone(ask("Hello", 2)), stays->text());
  EXPECT_EQ((std::vector<std::string>{"held started", "gone finished", "gone finished", "gone done",
                                      "held finished", "held done", "stays started",
                                      "stays finished", "stays done"}),
            log.all());
  waitUntilIdle();
  EXPECT_EQ(1U, scheduler->statistics().cancelled);
}

TEST_F(SchedulerTest, ACallerThatGoesAwayEndsTheReadingOfItsPrompt) {
  start(2);
  const auto writer = std::make_shared<Caller>();
  const auto reader = std::make_shared<Caller>();
  size_t events = 0;
  writer->onEvent = [&] {
    if (++events == 1) {
      gate.pass();
    }
    if (events == 4) {
      reader->goAway();
    }
  };
  submit(ask("Hello", 20), writer);
  gate.waitUntilReached();
  GenerationRequest request = ask(std::string(1200, 'x'), 5);
  request.choices = 2;
  submit(request, reader);
  gate.open();
  EXPECT_TRUE(reader->outcome().ok());
  EXPECT_FALSE(reader->isStarted);
  EXPECT_EQ(2U, reader->ends);
  EXPECT_EQ(ReplyEnd::Cancelled, reader->replies[0].end);
  EXPECT_EQ(alone(ask("Hello", 20)), writer->text());
  waitUntilIdle();
  const SchedulerStatistics counts = scheduler->statistics();
  EXPECT_EQ(1U, counts.cancelled);
  EXPECT_EQ(1U, counts.completed);
  EXPECT_LT(counts.readTokens, 1000U);
}

TEST_F(SchedulerTest, CallersThatGoAwayNeedNotWaitForTheirTurnToRead) {
  start(3);
  const auto writer = std::make_shared<Caller>("writer", &log);
  std::vector<std::shared_ptr<Caller>> readers;
  size_t events = 0;
  writer->onEvent = [&] {
    if (++events == 1) {
      gate.pass();
    }
    if (events == 4) {
      readers[0]->goAway();
      readers[1]->goAway();
    }
    log.add("token " + std::to_string(events));
  };
  submit(ask("Hello", 20), writer);
  gate.waitUntilReached();
  for (const char* name : {"a", "b"}) {
    readers.push_back(submit(ask(std::string(1200, 'x'), 5), name));
  }
  gate.open();
  writer->wait();
  const std::vector<std::string> lines = log.all();
  const auto flagged = std::find(lines.begin(), lines.end(), "token 4");
  ASSERT_LE(5, lines.end() - flagged);
  EXPECT_EQ((std::vector<std::string>{"token 4", "a finished", "a done", "b finished", "b done"}),
            std::vector<std::string>(flagged, flagged + 5));
}

TEST_F(SchedulerTest, ACallerThatGoesAwayEndsItsReplyWithinAToken) {
  start(1);
  const auto caller = std::make_shared<Caller>();
  caller->onEvent = [&] { caller->goAway(); };
  submit(ask("Hello", 20), caller);
  caller->text();
  EXPECT_EQ(ReplyEnd::Cancelled, caller->replies[0].end);
  EXPECT_EQ(1U, caller->replies[0].tokens);
  waitUntilIdle();
  EXPECT_EQ(1U, scheduler->statistics().cancelled);
}

TEST_F(SchedulerTest, WhereTheServerEndsTheLineIsTurnedAwayAndRepliesGoOn) {
  start(1);
  const auto held = submitHeld();
  const auto waiting = submit(ask("Hello", 2));
  scheduler->stopTaking();
  EXPECT_EQ(Submission::ShuttingDown,
            scheduler->submit(ask("Hello", 2), std::make_shared<Caller>()));
  EXPECT_FALSE(scheduler->waitUntilIdle(0ms));
  gate.open();
  EXPECT_EQ(GenerationFault::ShuttingDown, waiting->outcome().fault);
  EXPECT_EQ(alone(ask("Hold on", 40)), held->text());
  EXPECT_EQ(ReplyEnd::Limit, held->replies[0].end);
  waitUntilIdle();
  EXPECT_EQ(1U, scheduler->statistics().turnedAway);
  EXPECT_EQ(1U, scheduler->statistics().shuttingDown);
  EXPECT_EQ(1U, scheduler->statistics().completed);
}

TEST_F(SchedulerTest, WhatRunsIsCutOff) {
  start(2);
  GenerationRequest both = ask("Hello", 1000);
  both.choices = 3;  // the last one has no place yet
  const auto writer = std::make_shared<Caller>();
  writer->onEvent = [&] { gate.pass(); };
  submit(both, writer);
  gate.waitUntilReached();
  const auto waiting = submit(ask("Hello", 2));
  scheduler->cutOff();
  gate.open();
  EXPECT_TRUE(writer->outcome().ok());
  EXPECT_EQ(3U, writer->ends);
  for (const Reply& reply : writer->replies) {
    EXPECT_EQ(ReplyEnd::Cancelled, reply.end);
  }
  EXPECT_EQ(writer->told[0], writer->replies[0].message.content);
  EXPECT_FALSE(waiting->outcome().ok());
  waitUntilIdle();
}

TEST_F(SchedulerTest, APromptThatIsCutOffIsTurnedAway) {
  start(2);
  const auto writer = submitHeld();
  const auto reader = submit(ask(std::string(1200, 'x'), 5));
  Gate second;
  writer->onEvent = [&, events = 0]() mutable {
    if (++events == 3) {
      second.pass();
    }
  };
  gate.open();
  second.waitUntilReached();
  EXPECT_EQ(2U, scheduler->statistics().running);
  scheduler->cutOff();
  second.open();
  EXPECT_EQ(GenerationFault::ShuttingDown, reader->outcome().fault);
  EXPECT_FALSE(reader->isStarted);
  writer->wait();
  EXPECT_EQ(ReplyEnd::Cancelled, writer->replies[0].end);
}

TEST_F(SchedulerTest, ASchedulerThatIsLetGoOfAnswersEverybody) {
  start(1);
  const auto held = submitHeld();
  const auto waiting = submit(ask("Hello", 2));
  gate.open();
  scheduler.reset();
  EXPECT_TRUE(held->outcome().ok());
  EXPECT_FALSE(waiting->outcome().ok());
}

TEST_F(SchedulerTest, ARequestThatCannotBeFulfilledFailsAlone) {
  start(3);
  const auto held = submitHeld();
  const auto tooLong = submit(ask(std::string(kPositions, 'x'), 5));
  const auto damaged = submit(ask("a ~ b", 5));
  const auto unfit = submit(ask(std::vector<Message>{message(Role::Assistant, "Me first")}, 5));
  const auto after = submit(ask("Hello", 5));
  gate.open();
  EXPECT_EQ(GenerationFault::TooLong, tooLong->outcome().fault);
  EXPECT_NE(std::string::npos, tooLong->outcome().message.find("the context has 1500 positions"));
  EXPECT_EQ(GenerationFault::Numbers, damaged->outcome().fault);
  EXPECT_EQ(GenerationFault::Request, unfit->outcome().fault);
  EXPECT_EQ(alone(ask("Hold on", 40)), held->text());
  EXPECT_EQ(alone(ask("Hello", 5)), after->text());
  waitUntilIdle();
  EXPECT_EQ(3U, scheduler->statistics().failed);
}

// Its last token is damaged, and is fed together with those of others.
TEST_F(SchedulerTest, AReplyThatGoesWrongLeavesThePassToTheOthers) {
  start(3);
  const auto held = submitHeld();
  GenerationRequest damaged = ask("Hello", 5);
  damaged.options.sampling.logitBias = {{idOf("~"), 100.0F}};
  const auto wrong = submit(damaged);
  const auto right = submit(ask("What is new?", 30));
  gate.open();
  EXPECT_EQ(GenerationFault::Numbers, wrong->outcome().fault);
  EXPECT_EQ("~", wrong->told.at(0));
  EXPECT_EQ(alone(ask("Hold on", 40)), held->text());
  EXPECT_EQ(alone(ask("What is new?", 30)), right->text());
}

TEST_F(SchedulerTest, AConversationThatWentWrongIsForgotten) {
  start(1);
  GenerationRequest damaged = ask("Hello", 5);
  damaged.options.sampling.logitBias = {{idOf("~"), 100.0F}};
  EXPECT_EQ(GenerationFault::Numbers, submit(damaged)->outcome().fault);
  waitUntilIdle();
  EXPECT_EQ(0U, scheduler->statistics().positionsUsed);
  EXPECT_EQ(alone(ask("Hello", 5)), submit(ask("Hello", 5))->text());
}

TEST_F(SchedulerTest, OneChoiceThatGoesWrongFailsTheRequest) {
  start(2);
  GenerationRequest damaged = ask("Hello", 5);
  damaged.options.sampling.logitBias = {{idOf("~"), 100.0F}};
  damaged.choices = 4;
  EXPECT_EQ(GenerationFault::Numbers, submit(damaged)->outcome().fault);
  EXPECT_EQ(alone(ask("Hello", 5)), submit(ask("Hello", 5))->text());
  waitUntilIdle();
  EXPECT_EQ(1U, scheduler->statistics().failed);
}

// A single letter, over and over.
class OnlyLetter : public engine::ReplyConstraint {
 public:
  explicit OnlyLetter(int32_t letterId) : id(letterId) {}
  void allowed(engine::TokenMask& mask) override {
    mask.setAll(false);
    mask.allow(static_cast<size_t>(id));
  }
  void accept(int32_t chosen) override { EXPECT_EQ(id, chosen); }

 private:
  int32_t id;
};

// There is no memory for what it is to be told by some of its functions.
class Forgetful : public Caller {
 public:
  explicit Forgetful(std::set<std::string> functions) : lacking(std::move(functions)) {}

  void started(const GenerationStart& start) override {
    remember("started");
    Caller::started(start);
  }
  void event(size_t choice, const engine::ReplyEvent& event) override {
    remember("event");
    Caller::event(choice, event);
  }
  void token(size_t choice, const engine::LogProbabilities& chosen) override {
    if (onToken) {
      onToken();
    }
    remember("token");
    if (choice == 0) {
      Caller::token(choice, chosen);
    }
  }
  void finished(size_t choice, const Reply& reply) override {
    remember("finished");
    Caller::finished(choice, reply);
  }
  void done() override {
    remember("done");
    Caller::done();
  }
  void failed(GenerationFault fault, std::string_view message) override {
    remember("failed");
    Caller::failed(fault, message);
  }

  std::function<void()> onToken;

 private:
  void remember(const std::string& function) const {
    if (lacking.contains(function)) {
      throw std::bad_alloc();
    }
  }

  std::set<std::string> lacking;
};

// Running out of memory costs the request that it is needed for, and nobody else.
class SchedulerMemoryTest : public SchedulerTest {
 protected:
  // The line goes on, every request was counted once, and the sink of a caller that could not even
  // be told of its failure has been let go of.
  void expectNoHarm() {
    EXPECT_EQ(alone(ask("Hello", 5)), submit(ask("Hello", 5))->text());
    waitUntilIdle();
    const SchedulerStatistics counts = scheduler->statistics();
    EXPECT_EQ(counts.accepted,
              counts.completed + counts.cancelled + counts.failed + counts.turnedAway);
    EXPECT_EQ(0U, counts.running + counts.waiting);
  }
  static void expectOutOfMemory(Caller& caller) {
    EXPECT_EQ(GenerationFault::NoMemory, caller.outcome().fault);
    EXPECT_EQ("out of memory", caller.outcome().message);
  }
  void expectLetGoOf(std::shared_ptr<Forgetful> caller) {
    const std::weak_ptr<Forgetful> left = std::exchange(caller, nullptr);
    waitUntilIdle();
    EXPECT_TRUE(left.expired());
  }
};

TEST_F(SchedulerMemoryTest, WhatCannotBeToldOfAReplyFailsIt) {
  start(2);
  for (const size_t choices : {1U, 3U}) {
    GenerationRequest request = ask("Hello", 4);
    request.choices = choices;
    request.logProbabilities = 1;
    for (const std::string function : {"started", "token", "event", "finished", "done"}) {
      SCOPED_TRACE(function + " " + std::to_string(choices));
      const auto told = std::make_shared<Forgetful>(std::set<std::string>{function});
      submit(request, told);
      expectOutOfMemory(*told);
      auto untold = std::make_shared<Forgetful>(std::set<std::string>{function, "failed"});
      submit(request, untold);
      expectLetGoOf(std::move(untold));
      expectNoHarm();
    }
  }
}

TEST_F(SchedulerMemoryTest, RepliesBesideItGoOn) {
  start(2);
  const auto held = submitHeld();
  const auto forgetful = std::make_shared<Forgetful>(std::set<std::string>{"finished", "failed"});
  submit(ask("Hello", 4), forgetful);
  gate.open();
  EXPECT_EQ(alone(ask("Hold on", 40)), held->text());
  expectNoHarm();
}

TEST_F(SchedulerMemoryTest, FailuresThatCannotBeToldEndTheRequest) {
  start(1);
  const auto held = submitHeld();
  auto tooLong = std::make_shared<Forgetful>(std::set<std::string>{"failed"});
  submit(ask(std::string(kPositions, 'x'), 5), tooLong);
  gate.open();
  expectLetGoOf(std::move(tooLong));
  expectNoHarm();
}

TEST_F(SchedulerMemoryTest, CallersThatWentAwayNeedNotBeTold) {
  start(1);
  const auto held = submitHeld();
  GenerationRequest both = ask("Hello", 2);
  both.choices = 2;
  auto gone = std::make_shared<Forgetful>(std::set<std::string>{"finished"});
  submit(both, gone);
  gone->goAway();
  auto silent = std::make_shared<Forgetful>(std::set<std::string>{"finished", "failed"});
  submit(both, silent);
  silent->goAway();
  gate.open();
  expectOutOfMemory(*gone);
  expectLetGoOf(std::move(silent));
  expectNoHarm();
}

// Text that might begin a stop string is held back, and comes when the reply is cut off.
TEST_F(SchedulerMemoryTest, LastWordsOfAReplyThatIsCutOff) {
  start(1);
  GenerationRequest request = ask("Hello", 100);
  request.logProbabilities = 1;
  request.makeConstraint = [] { return std::make_unique<OnlyLetter>(idOf("a")); };
  request.options.stops = {std::string(50, 'a') + "b"};
  const auto caller = std::make_shared<Forgetful>(std::set<std::string>{"event"});
  caller->onToken = [&, tokens = 0]() mutable {
    if (++tokens == 3) {
      scheduler->cutOff();
    }
  };
  submit(request, caller);
  expectOutOfMemory(*caller);
  waitUntilIdle();
}

TEST_F(SchedulerTest, EveryChoiceHasAConstraintOfItsOwn) {
  start(2);
  GenerationRequest request = ask("Hello", 4);
  request.choices = 3;
  size_t made = 0;
  request.makeConstraint = [&made] {
    return std::make_unique<OnlyLetter>(idOf(std::string(1, static_cast<char>('a' + made++))));
  };
  const auto caller = submit(request);
  EXPECT_EQ("aaaa", caller->text(0));
  EXPECT_EQ("bbbb", caller->text(1));
  EXPECT_EQ("cccc", caller->text(2));
}

TEST_F(SchedulerTest, LogProbabilitiesAreToldOfEveryToken) {
  start(1);
  GenerationRequest request = ask("Hello", 4);
  request.logProbabilities = 2;
  const auto caller = submit(request);
  caller->wait();
  ASSERT_EQ(4U, caller->probabilities.size());
  for (const engine::LogProbabilities& token : caller->probabilities) {
    EXPECT_EQ(2U, token.best.size());
    EXPECT_GE(token.best[0].logProbability, token.chosen.logProbability);
  }
}

TEST_F(SchedulerTest, ManyThreadsSubmit) {
  start(2, /*queueLength=*/100);
  const std::string expected = alone(ask("Hello", 3));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int request = 0; request < 5; ++request) {
        const auto caller = std::make_shared<Caller>();
        EXPECT_EQ(Submission::Accepted, scheduler->submit(ask("Hello", 3), caller));
        EXPECT_LE(scheduler->statistics().running, 2U);
        EXPECT_EQ(expected, caller->text());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  waitUntilIdle();
  EXPECT_EQ(20U, scheduler->statistics().completed);
}

TEST(Scheduler, MoreThanTheModelHasRoomForIsRefused) {
  std::unique_ptr<Scheduler> scheduler;
  EXPECT_FALSE(
      Scheduler::create(sharedModel().model, {.context = {.positions = 6000}}, scheduler).ok());
}

}  // namespace
}  // namespace zym
