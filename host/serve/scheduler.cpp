#include "host/serve/scheduler.h"

#include <algorithm>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "engine/chat_tokens.h"
#include "engine/reply_run.h"
#include "host/serve/reply_slot.h"

namespace zym {

namespace {

using engine::Context;
using engine::ReplyRun;
using kel::Status;
using kel::StatusCode;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Short enough for a string to hold it without memory.
constexpr std::string_view kNoMemory = "out of memory";

template <typename Step>
Status withMemory(const Step& step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return Status::ioError(std::string(kNoMemory));
  }
}

// Whether there was the memory to tell it.
template <typename Tell>
bool hasTold(const Tell& tell) {
  try {
    tell();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

constexpr std::string_view kServerEnds = "the server is shutting down";

GenerationFault faultOf(const Status& status) {
  switch (status.code) {
    case StatusCode::InvalidFormat:
      return GenerationFault::Request;
    case StatusCode::IoError:
      return GenerationFault::NoMemory;
    default:
      return GenerationFault::Numbers;
  }
}

engine::Reply cancelledReply() {
  engine::Reply reply;
  reply.end = engine::ReplyEnd::Cancelled;
  return reply;
}

}  // namespace

Status Scheduler::create(const std::shared_ptr<const engine::Model>& model,
                         const SchedulerOptions& options, std::unique_ptr<Scheduler>& out) {
  engine::ContextOptions each = options.context;
  each.snapshotBytes /= options.parallel;
  Status status = engine::Passes::create(
      model, {.positions = each.positions, .threads = each.threads, .kernels = each.kernels},
      each.passes);
  if (!status.ok()) {
    return status;
  }
  std::vector<std::unique_ptr<ReplySlot>> conversations;
  for (size_t i = 0; i < options.parallel; ++i) {
    std::unique_ptr<Context> context;
    status = Context::create(model, each, context);
    if (!status.ok()) {
      return status;
    }
    conversations.push_back(std::make_unique<ReplySlot>(std::move(context)));
  }
  out.reset(new Scheduler(options, std::move(conversations)));
  return status;
}

Scheduler::Scheduler(const SchedulerOptions& options,
                     std::vector<std::unique_ptr<ReplySlot>> conversations)
    : room(options.parallel + options.queueLength),
      queuePace(options.parallel),
      slots(std::move(conversations)) {
  unwanted.reserve(room);
  others.reserve(slots.size());
  writers.reserve(slots.size());
  contexts.reserve(slots.size());
  tokens.reserve(slots.size());
  outcomes.resize(slots.size());
  publish();
  thread = std::thread([this] { work(); });
}

Scheduler::~Scheduler() {
  cutOff();
  {
    const std::lock_guard lock(mutex);
    isEnding = true;
  }
  arrival.notify_one();
  thread.join();
}

Submission Scheduler::submit(GenerationRequest request, std::shared_ptr<GenerationSink> sink) {
  auto job = std::make_shared<GenerationJob>(
      GenerationJob{std::move(request), std::move(sink), Clock::now()});
  job->unfinished = job->request.choices;
  // A long text takes its time to be cut into tokens: running replies go on meanwhile.
  if (const Submission answer = admit(nullptr); answer != Submission::Accepted) {
    return answer;
  }
  job->encoded = encode(*job);
  return admit(std::move(job));
}

// With no job: whether there is room for one.
Submission Scheduler::admit(Job job) {
  {
    const std::lock_guard lock(mutex);
    if (isStopped) {
      ++counts.shuttingDown;
      return Submission::ShuttingDown;
    }
    if (running + queue.size() >= room) {
      ++counts.queueFull;
      return Submission::QueueFull;
    }
    if (job == nullptr) {
      return Submission::Accepted;
    }
    queue.push_back(std::move(job));
    ++counts.accepted;
    isIdle = false;
  }
  arrival.notify_one();
  return Submission::Accepted;
}

void Scheduler::stopTaking() {
  {
    const std::lock_guard lock(mutex);
    isStopped = true;
  }
  arrival.notify_one();
}

void Scheduler::cutOff() {
  {
    const std::lock_guard lock(mutex);
    isStopped = true;
    isCutOff = true;
  }
  arrival.notify_one();
}

bool Scheduler::waitUntilIdle(std::chrono::milliseconds longest) {
  std::unique_lock lock(mutex);
  return idle.wait_for(lock, longest, [this] { return isIdle; });
}

SchedulerStatistics Scheduler::statistics() const {
  const std::lock_guard lock(mutex);
  SchedulerStatistics result = counts;
  result.waiting = queue.size();
  result.running = running;
  return result;
}

std::chrono::seconds Scheduler::untilRoom() const {
  const std::lock_guard lock(mutex);
  return queuePace.untilRoom();
}

void Scheduler::work() {
  while (waitForWork()) {
    dropUnwanted();
    takeUp();
    readSlice();
    writeTokens();
    publish();
  }
}

bool Scheduler::waitForWork() {
  std::unique_lock lock(mutex);
  if (running == 0) {
    if (queue.empty()) {
      isIdle = true;
      idle.notify_all();
    }
    arrival.wait(lock, [this] { return isEnding || !queue.empty(); });
  }
  return running > 0 || !queue.empty();
}

// Callers that have gone away hold the places of others.
void Scheduler::dropUnwanted() {
  bool ends = false;
  bool cuts = false;
  {
    const std::lock_guard lock(mutex);
    ends = isStopped;
    cuts = isCutOff;
    std::erase_if(queue, [&](const Job& job) {
      const bool drops = ends || job->isCancelled();
      if (drops) {
        unwanted.push_back(job);
      }
      return drops;
    });
    running += unwanted.size();  // until they have been told
  }
  for (const Job& job : unwanted) {
    ends ? turnAway(job) : finishRest(job, 0);
  }
  unwanted.clear();
  for (const std::unique_ptr<ReplySlot>& slot : slots) {
    if (slot->is(ReplyRun::State::Reading) && slot->job()->isCancelled()) {
      cancel(*slot);  // whose turn to read it is has no part in it
    }
  }
  if (cuts) {
    cutReplies();
  }
}

void Scheduler::cutReplies() {
  for (const std::unique_ptr<ReplySlot>& slot : slots) {
    if (slot->isFree()) {
      continue;
    }
    if (!slot->job()->isRead) {
      turnAway(slot->job());
    } else {
      cancel(*slot);
    }
  }
  while (!choices.empty()) {
    const Choice next = std::move(choices.front());
    choices.pop_front();
    finish(next.job, next.index, cancelledReply());
  }
}

void Scheduler::cancel(ReplySlot& slot) {
  sweep(slot, withMemory([&] {
          slot.run().cancel();
          return Status::success();
        }));
}

void Scheduler::takeUp() {
  takeUpChoices();
  while (freeSlot() != nullptr) {
    Job job;
    {
      const std::lock_guard lock(mutex);
      if (queue.empty()) {
        return;
      }
      job = std::move(queue.front());
      queue.pop_front();
      ++running;
      job->takenUp = Clock::now();
      job->queueSeconds = std::chrono::duration<double>(job->takenUp - job->arrival).count();
      counts.queueTimes.add(job->queueSeconds);
    }
    if (job->encoded.ok()) {
      begin(job, 0);
    } else {
      fail(job, faultOf(job->encoded), job->encoded.message);
    }
  }
}

// They come before requests that wait: theirs came first.
void Scheduler::takeUpChoices() {
  while (!choices.empty() && freeSlot() != nullptr) {
    const Choice next = std::move(choices.front());
    choices.pop_front();
    begin(next.job, next.index);
  }
}

Status Scheduler::encode(GenerationJob& job) const {
  const GenerationRequest& request = job.request;
  return withMemory([&] {
    if (!request.messages.empty()) {
      return engine::encodeChat(slots.front()->context().model(),
                                {.messages = request.messages,
                                 .tools = request.tools,
                                 .thinking = request.thinking,
                                 .preserveThinking = request.preserveThinking},
                                job.chat);
    }
    job.chat.tokens = engine::promptTokens(request.prompt);
    // A place in front of the last token: what other choices come back to.
    if (request.choices > 1 && request.prompt.size() > 1) {
      job.chat.ends = {request.prompt.size() - 1};
    }
    return Status::success();
  });
}

void Scheduler::begin(const Job& job, size_t choice) {
  ReplySlot& slot = slotFor(job->chat.tokens);
  sweep(slot, withMemory([&] {
          slot.take(job, choice);
          return slot.run().begin();
        }));
  // All of the prompt was there: no other has to wait for its turn to read.
  if (slot.is(ReplyRun::State::Reading) && slot.run().unread() == 0) {
    readPart(slot, 0);
  }
}

// The one that was used longest ago; null where none is free.
ReplySlot* Scheduler::freeSlot() {
  ReplySlot* oldest = nullptr;
  for (const std::unique_ptr<ReplySlot>& slot : slots) {
    if (slot->isFree() && (oldest == nullptr || slot->lastUse() < oldest->lastUse())) {
      oldest = slot.get();
    }
  }
  return oldest;
}

// Where the tokens go on with most of what a conversation holds. One that would lose more by it
// than it keeps is left as it is, for its own caller to come back to: another one begins with a
// copy.
ReplySlot& Scheduler::slotFor(std::span<const engine::Token> wanted) {
  others.clear();
  ReplySlot* best = freeSlot();
  for (const std::unique_ptr<ReplySlot>& slot : slots) {
    others.push_back(&slot->context());
    if (slot->context().held(wanted) > best->context().held(wanted)) {
      best = slot.get();
    }
  }
  const uint64_t held = best->context().held(wanted);
  if (best->isFree() && 2 * held >= best->worth()) {
    return *best;
  }
  ReplySlot& oldest = *freeSlot();
  std::erase(others, &oldest.context());
  oldest.context().branchFrom(wanted, others);
  return oldest;
}

void Scheduler::readSlice() {
  ReplySlot* reader = nullptr;
  for (size_t i = 1; i <= slots.size() && reader == nullptr; ++i) {
    const size_t at = (lastReader + i) % slots.size();
    if (slots[at]->is(ReplyRun::State::Reading)) {
      reader = slots[at].get();
      lastReader = at;
    }
  }
  if (reader == nullptr) {
    return;
  }
  const bool othersWrite = std::any_of(slots.begin(), slots.end(), [](const auto& slot) {
    return slot->is(ReplyRun::State::Writing);
  });
  readPart(*reader, pace.tokens(othersWrite));
}

void Scheduler::readPart(ReplySlot& slot, size_t most) {
  ReplyRun& run = slot.run();
  const uint64_t unread = run.unread();
  const Clock::time_point start = Clock::now();
  const Status status = withMemory([&] {
    Status part;
    do {
      part = run.read(most - (unread - run.unread()));
    } while (part.ok() && run.state() == ReplyRun::State::Reading && unread - run.unread() < most);
    return part;
  });
  const double seconds = secondsSince(start);
  const uint64_t read = unread - run.unread();
  pace.saw(read, seconds);
  {
    const std::lock_guard lock(mutex);
    counts.prefillSeconds += seconds;
    counts.readTokens += read;
  }
  if (status.ok() && run.state() == ReplyRun::State::Read) {
    promptRead(slot);
  } else {
    sweep(slot, status);
  }
}

void Scheduler::promptRead(ReplySlot& slot) {
  const Job job = slot.job();
  const bool isFirst = !job->isRead;  // of its choices
  if (isFirst) {
    job->isRead = true;
    const engine::Reply& reply = slot.reply();
    {
      const std::lock_guard lock(mutex);
      counts.promptTokens += reply.promptTokens;
      counts.cachedTokens += reply.reusedTokens;
      counts.cacheHits += reply.reusedTokens > 0 ? 1 : 0;
    }
    const Status told = withMemory([&] {
      job->sink->started({.promptTokens = reply.promptTokens,
                          .cachedTokens = reply.reusedTokens,
                          .queueSeconds = job->queueSeconds});
      for (size_t choice = 1; choice < job->request.choices; ++choice) {
        choices.push_back({job, choice});
      }
      return Status::success();
    });
    if (!told.ok()) {
      sweep(slot, told);
      return;
    }
    takeUpChoices();
  }
  if (slot.is(ReplyRun::State::Read)) {
    const Status status = withMemory([&] { return slot.run().start(); });
    if (isFirst && slot.reply().tokens > 0) {
      const std::lock_guard lock(mutex);
      counts.firstTokenTimes.add(secondsSince(job->arrival));
    }
    sweep(slot, status);
  }
}

void Scheduler::writeTokens() {
  writers.clear();
  contexts.clear();
  tokens.clear();
  for (const std::unique_ptr<ReplySlot>& slot : slots) {
    if (slot->is(ReplyRun::State::Writing)) {
      writers.push_back(slot.get());
      contexts.push_back(&slot->context());
      tokens.push_back(slot->run().token());
    }
  }
  if (writers.empty()) {
    return;
  }
  const Clock::time_point start = Clock::now();
  if (writers.size() == 1) {
    sweep(*writers[0], withMemory([&] { return writers[0]->run().write(); }));
  } else {
    const Status fed = withMemory([&] {
      Context::feedTogether(contexts, tokens, std::span(outcomes).first(writers.size()));
      return Status::success();
    });
    for (size_t i = 0; i < writers.size(); ++i) {
      // Another choice of the request may have failed it.
      if (writers[i]->is(ReplyRun::State::Writing)) {
        sweep(*writers[i],
              withMemory([&] { return writers[i]->run().tokenFed(fed.ok() ? outcomes[i] : fed); }));
      }
    }
  }
  const std::lock_guard lock(mutex);
  counts.decodeSeconds += secondsSince(start);
  ++counts.passes;
}

// After a step of a reply: sees to what it has come to.
void Scheduler::sweep(ReplySlot& slot, const Status& status) {
  const Job job = slot.job();
  if (!status.ok()) {
    fail(job, slot.reply().lacksRoom ? GenerationFault::TooLong : faultOf(status), status.message);
    if (status.code != StatusCode::InvalidFormat) {
      slot.context().reset();
    }
    return;
  }
  if (!slot.is(ReplyRun::State::Over)) {
    return;
  }
  const size_t choice = slot.choice();
  slot.release(++uses);
  finish(job, choice, slot.reply());  // is there until the slot is taken again
  if (!job->isRead) {
    finishRest(job, 1);
  }
}

void Scheduler::finish(const Job& job, size_t choice, const engine::Reply& reply) {
  if (job->isOver) {
    return;  // another choice has failed it
  }
  job->wasCancelled |= reply.end == engine::ReplyEnd::Cancelled;
  --job->unfinished;
  {
    const std::lock_guard lock(mutex);
    counts.replyTokens += reply.tokens;
  }
  if (!hasTold([&] { job->sink->finished(choice, reply); })) {
    fail(job, GenerationFault::NoMemory, kNoMemory);
  } else if (job->unfinished == 0) {
    end(job, job->wasCancelled ? &SchedulerStatistics::cancelled : &SchedulerStatistics::completed,
        [&] { job->sink->done(); });
  }
}

// Choices that will not begin.
void Scheduler::finishRest(const Job& job, size_t firstChoice) {
  for (size_t choice = firstChoice; choice < job->request.choices; ++choice) {
    finish(job, choice, cancelledReply());
  }
}

void Scheduler::fail(const Job& job, GenerationFault fault, std::string_view message) {
  giveUp(job, fault, message, &SchedulerStatistics::failed);
}

void Scheduler::turnAway(const Job& job) {
  giveUp(job, GenerationFault::ShuttingDown, kServerEnds, &SchedulerStatistics::turnedAway);
}

void Scheduler::giveUp(const Job& job, GenerationFault fault, std::string_view message,
                       uint64_t SchedulerStatistics::*outcome) {
  const Job failed = job;  // the slot's own is let go of
  for (const std::unique_ptr<ReplySlot>& slot : slots) {
    if (slot->job() == failed) {
      slot->release(++uses);
    }
  }
  std::erase_if(choices, [&](const Choice& choice) { return choice.job == failed; });
  end(failed, outcome, [&] { failed->sink->failed(fault, message); });
}

// It counts as what the reply came to, also where there is no memory to tell of it: then there may
// be some to say so, and else the sink is let go of with the job, without an end.
template <typename Tell>
void Scheduler::end(const Job& job, uint64_t SchedulerStatistics::*outcome, const Tell& tell) {
  job->isOver = true;
  {
    const std::lock_guard lock(mutex);
    ++(counts.*outcome);
  }
  if (!hasTold(tell)) {
    (void)hasTold([&] { job->sink->failed(GenerationFault::NoMemory, kNoMemory); });
  }
  const std::lock_guard lock(mutex);
  --running;
  if (job->takenUp != Clock::time_point()) {
    queuePace.saw(secondsSince(job->takenUp));
  }
}

void Scheduler::publish() {
  uint64_t used = 0;
  uint64_t all = 0;
  uint64_t snapshots = 0;
  for (const std::unique_ptr<ReplySlot>& slot : slots) {
    used += slot->context().position();
    all += slot->context().capacity();
    snapshots += slot->context().snapshotBytes();
  }
  const std::lock_guard lock(mutex);
  counts.positionsUsed = used;
  counts.positions = all;
  counts.snapshotBytes = snapshots;
}

}  // namespace zym
