// What runs the model for many callers: requests wait in a line, conversations are kept side by
// side, and one thread gives each of them its part of every turn.
//
//   std::unique_ptr<Scheduler> scheduler;
//   kel::Status status = Scheduler::create(model, {.parallel = 4}, scheduler);
//   scheduler->submit(request, sink);
//   ...
//   scheduler->stopTaking();
//   if (!scheduler->waitUntilIdle(grace)) scheduler->cutOff();
//
// A turn: free conversations are given to requests in the order of their arrival; one of those
// whose prompt is not read yet reads a slice of it; all that write feed their tokens in one pass,
// which reads each weight once. A text depends on none of this: same request and seed, same bytes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <thread>
#include <vector>

#include "container/status.h"
#include "engine/context.h"
#include "engine/model.h"
#include "host/serve/generation.h"
#include "host/serve/queue_pace.h"
#include "host/serve/slice_pace.h"
#include "host/serve/time_histogram.h"

namespace zym {

class ReplySlot;
struct GenerationJob;

struct SchedulerOptions {
  size_t parallel = 1;      // conversations, at least 1
  size_t queueLength = 64;  // requests that wait beyond those that a conversation has room for
  // Of each conversation; snapshotBytes are those of all together.
  engine::ContextOptions context = {};
};

// Since the scheduler was made, and at this moment.
struct SchedulerStatistics {
  // Requests by what became of them; of those that were accepted, the others are under way.
  uint64_t accepted = 0;
  uint64_t completed = 0;
  uint64_t cancelled = 0;     // by the caller, or cut off
  uint64_t failed = 0;        // for what they said, or by the model
  uint64_t turnedAway = 0;    // of the line when the server ended
  uint64_t queueFull = 0;     // not accepted
  uint64_t shuttingDown = 0;  // likewise

  uint64_t promptTokens = 0;      // of requests whose prompt has been read
  uint64_t cachedTokens = 0;      // of those, in place before
  uint64_t cacheHits = 0;         // requests with any
  uint64_t readTokens = 0;        // fed of prompts, also of those that were given up
  uint64_t replyTokens = 0;       // of choices that are finished
  uint64_t passes = 0;            // over tokens of replies, one or several
  TimeHistogram queueTimes;       // of requests that were taken up, until then
  TimeHistogram firstTokenTimes;  // of those that came to one, until then; the queue included
  double prefillSeconds = 0;
  double decodeSeconds = 0;

  size_t waiting = 0;          // requests
  size_t running = 0;          // likewise
  uint64_t positionsUsed = 0;  // of all conversations
  uint64_t positions = 0;
  uint64_t snapshotBytes = 0;
};

class Scheduler : public GenerationQueue {
 public:
  // Starts the thread. Refuses what Context::create refuses.
  static kel::Status create(const std::shared_ptr<const engine::Model>& model,
                            const SchedulerOptions& options, std::unique_ptr<Scheduler>& out);

  // Cuts off what runs.
  ~Scheduler() override;

  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  Submission submit(GenerationRequest request, std::shared_ptr<GenerationSink> sink) override;

  // Any thread. From here on nothing is accepted; requests that wait are turned away, replies go
  // on.
  void stopTaking();

  // The same, and ends replies within a token, prompts within a slice.
  void cutOff();

  // Any thread but the scheduler's. False where requests wait or run still after this time.
  bool waitUntilIdle(std::chrono::milliseconds most);

  SchedulerStatistics statistics() const;  // any thread
  std::chrono::seconds untilRoom() const override;

 private:
  using Job = std::shared_ptr<GenerationJob>;
  struct Choice {
    Job job;
    size_t index;
  };

  Scheduler(const SchedulerOptions& options, std::vector<std::unique_ptr<ReplySlot>> conversations);

  // All that follows is of the scheduler's thread.
  void work();
  bool waitForWork();
  void dropUnwanted();
  void takeUp();
  void takeUpChoices();
  void begin(const Job& job, size_t choice);
  ReplySlot* freeSlot();
  ReplySlot& slotFor(std::span<const engine::Token> wanted);
  Submission admit(Job job);
  kel::Status encode(GenerationJob& job) const;
  void readSlice();
  void readPart(ReplySlot& slot, size_t most);
  void promptRead(ReplySlot& slot);
  void writeTokens();
  void sweep(ReplySlot& slot, const kel::Status& status);
  void finish(const Job& job, size_t choice, const engine::Reply& reply);
  void finishRest(const Job& job, size_t firstChoice);
  void fail(const Job& job, GenerationFault fault, std::string_view message);
  void turnAway(const Job& job);
  void giveUp(const Job& job, GenerationFault fault, std::string_view message,
              uint64_t SchedulerStatistics::*outcome);
  template <typename Tell>
  void end(const Job& job, uint64_t SchedulerStatistics::*outcome, const Tell& tell);
  void cutReplies();
  void cancel(ReplySlot& slot);
  void publish();

  const size_t room;  // for requests that wait or run

  mutable std::mutex mutex;  // of what follows
  std::condition_variable arrival;
  std::condition_variable idle;
  std::deque<Job> queue;
  size_t running = 0;
  bool isStopped = false;
  bool isCutOff = false;
  bool isEnding = false;
  bool isIdle = true;
  SchedulerStatistics counts;
  QueuePace queuePace;

  std::vector<std::unique_ptr<ReplySlot>> slots;
  std::deque<Choice> choices;  // of requests whose prompt has been read, in their order
  SlicePace pace;
  size_t lastReader = 0;
  uint64_t uses = 0;

  // Scratch of a turn, with room for all that there can be: memory that runs out may end a reply,
  // but not in between them.
  std::vector<Job> unwanted;
  std::vector<engine::Context*> others;
  std::vector<ReplySlot*> writers;
  std::vector<engine::Context*> contexts;
  std::vector<int32_t> tokens;
  std::vector<kel::Status> outcomes;

  std::thread thread;
};

}  // namespace zym
