#include "engine/context.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cmath>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "qwen35/diagnostics.h"
#include "qwen35/forward.h"

namespace engine {

namespace {

using kel::Status;

// False for infinities and NaN. Looks at all of them: without a way out the compiler takes several
// at once, of hundreds of thousands behind every token.
bool allFinite(std::span<const float> values) {
  uint32_t odd = 0;
  for (const float value : values) {
    odd |= std::fabs(value) <= std::numeric_limits<float>::max() ? 0U : 1U;
  }
  return odd == 0;
}

Status notFinite() {
  return {kel::StatusCode::Corrupted,
          "the model's numbers run out of range; its weights are damaged or not those of a model"};
}

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// As many tokens as diagnostics, which look at passes of one, leave to a batch.
size_t longestBatch(const qwen35::Context& pass) {
  return qwen35::Diagnostics::fromEnvironment().any() ? 1 : pass.maxTokens();
}

}  // namespace

std::vector<Token> promptTokens(std::span<const int32_t> ids) {
  std::vector<Token> tokens;
  tokens.reserve(ids.size());
  for (const int32_t id : ids) {
    tokens.push_back({id, false});
  }
  return tokens;
}

Context::Context(std::shared_ptr<const Model> model, const ContextOptions& options)
    : shared(std::move(model)),
      weights(boundModel(*shared, options.positions, options.cacheType)),
      passes(options.passes != nullptr
                 ? options.passes
                 : std::make_shared<Passes>(shared, weights, options.threads, options.kernels)),
      places(weights, options.snapshotBytes),
      lastLogits(weights.nVocab) {
  fed.reserve(options.positions);
}

Status Context::create(std::shared_ptr<const Model> model, const ContextOptions& options,
                       std::unique_ptr<Context>& out) {
  ContextOptions asked = options;
  Status status = choosePositions(*model, asked.positions);
  if (!status.ok()) {
    return status;
  }
  if (asked.passes != nullptr && asked.passes->shared != model) {
    return Status::invalid("a context over passes of another model");
  }
  if (asked.passes != nullptr && asked.positions > asked.passes->positions()) {
    return Status::invalid("a context of " + std::to_string(asked.positions) +
                           " positions over passes with room for " +
                           std::to_string(asked.passes->positions()));
  }
  try {
    out.reset(new Context(std::move(model), asked));
  } catch (const std::bad_alloc&) {
    return Status::ioError("not enough memory for a context of " + std::to_string(asked.positions) +
                           " positions");
  }
  return status;
}

std::span<const float> Context::logits() const {
  return hasLogits ? std::span<const float>(lastLogits) : std::span<const float>();
}

Status Context::check(std::span<const Token> tokens) const {
  const uint64_t room = capacity() - position();
  if (tokens.size() > room) {
    return Status::invalid("the text takes " + std::to_string(tokens.size()) + " tokens, but " +
                           std::to_string(room) + " of " + std::to_string(capacity()) +
                           " positions are free");
  }
  const auto unfit = std::find_if(tokens.begin(), tokens.end(), [this](const Token& token) {
    return token.id < 0 || static_cast<uint64_t>(token.id) >= weights.nVocab;
  });
  return unfit == tokens.end()
             ? Status::success()
             : Status::invalid("token " + std::to_string(unfit->id) + " is none of the model's " +
                               std::to_string(weights.nVocab));
}

Context::Place Context::placeOf(std::span<const Token> wanted, uint64_t most) const {
  const size_t longest = std::min(wanted.size(), fed.size());
  const auto alike = static_cast<uint64_t>(
      std::mismatch(wanted.begin(), wanted.begin() + static_cast<std::ptrdiff_t>(longest),
                    fed.begin())
          .first -
      wanted.begin());
  if (alike == fed.size() && alike <= most && (alike < wanted.size() || hasLogits)) {
    return {alike, true};
  }
  // Behind a place that is gone back to there must be something to feed: it has no logits.
  const uint64_t furthest = wanted.empty() ? 0 : wanted.size() - 1;
  return {places.nearest(std::min({alike, furthest, most})), false};
}

size_t Context::resume(std::span<const Token> wanted) {
  const Place place = placeOf(wanted, capacity());
  if (!place.isHere) {
    goBackTo(place.position);
  }
  counts.reusedTokens += fed.size();
  return fed.size();
}

bool Context::branchFrom(std::span<const Token> wanted, std::span<Context* const> others) {
  Place best = placeOf(wanted, capacity());
  Context* source = nullptr;
  for (Context* other : others) {
    if (other->shared != shared || other->weights.cacheType != weights.cacheType) {
      continue;
    }
    const Place place = other->placeOf(wanted, capacity());
    if (place.position > best.position) {
      best = place;
      source = other;
    }
  }
  if (source == nullptr) {
    return false;
  }
  // Rows of the same beginning have the same bits in both.
  const auto same = static_cast<uint64_t>(
      std::mismatch(fed.begin(), fed.end(), source->fed.begin(), source->fed.end()).first -
      fed.begin());
  const uint64_t kept = std::min(same, best.position);
  places.forgetBehind(kept);
  copyCacheRows(source->weights, weights, kept, best.position);
  if (best.isHere) {
    copyState(source->weights, weights);
  } else {
    source->places.restore(weights, best.position);
  }
  fed.assign(wanted.begin(), wanted.begin() + static_cast<std::ptrdiff_t>(best.position));
  hasLogits = best.isHere && source->hasLogits;
  if (hasLogits) {
    std::copy(source->lastLogits.begin(), source->lastLogits.end(), lastLogits.begin());
  }
  return true;
}

void Context::goBackTo(uint64_t position) {
  places.forgetBehind(position);
  hasLogits = false;
  if (position == 0) {
    qwen35::resetModel(weights);
    fed.clear();
  } else {
    places.restore(weights, position);
    fed.resize(position);
  }
}

void Context::remember() {
  if (position() > 0) {
    places.take(weights, position());
  }
}

Context::Fed Context::feed(std::span<const Token> tokens, const PromptProgress& progress,
                           const volatile int* cancel, Status& status) {
  status = check(tokens);
  if (!status.ok()) {
    return Fed::Failed;
  }
  remember();
  return feedPart(tokens, Logits::OfTheLast, progress, cancel, status);
}

Context::Fed Context::feedPart(std::span<const Token> tokens, Logits wanted,
                               const PromptProgress& progress, const volatile int* cancel,
                               Status& status) {
  status = check(tokens);
  if (!status.ok()) {
    return Fed::Failed;
  }
  const uint64_t before = position();
  const Fed outcome = feedRuns(tokens, wanted, progress, cancel, status);
  if (outcome != Fed::All) {
    goBackTo(places.nearest(before));
  }
  return outcome;
}

Context::Fed Context::feedRuns(std::span<const Token> tokens, Logits wanted,
                               const PromptProgress& progress, const volatile int* cancel,
                               Status& status) {
  const size_t longest = longestBatch(passes->pass);
  const uint64_t before = position();
  for (size_t at = 0; at < tokens.size();) {
    const auto batch = tokens.subspan(at, batchLength(tokens.subspan(at), longest));
    at += batch.size();
    const Fed outcome =
        feedBatch(batch, at == tokens.size() && wanted == Logits::OfTheLast, cancel);
    if (outcome == Fed::Failed) {
      status = notFinite();
    }
    if (outcome != Fed::All) {
      return outcome;
    }
    if (position() % kSnapshotInterval == 0) {
      places.use(before);  // not to be given up for the new one: a failure goes back there
      remember();
    }
    if (progress) {
      progress(at, tokens.size());
    }
  }
  return Fed::All;
}

Context::Fed Context::feedForLogits(std::span<const Token> tokens, std::span<float> logits,
                                    const volatile int* cancel, Status& status) {
  status = check(tokens);
  if (!status.ok()) {
    return Fed::Failed;
  }
  const size_t longest = longestBatch(passes->pass);
  for (size_t at = 0; at < tokens.size();) {
    const auto batch = tokens.subspan(at, batchLength(tokens.subspan(at), longest));
    const Fed outcome =
        feedBatch(batch, at + batch.size() == tokens.size(), cancel,
                  logits.subspan(at * weights.nVocab, batch.size() * weights.nVocab));
    if (outcome == Fed::Failed) {
      status = notFinite();
    }
    if (outcome != Fed::All) {
      reset();
      return outcome;
    }
    at += batch.size();
  }
  return Fed::All;
}

// Of one arithmetic, and not beyond a place that is to be remembered.
size_t Context::batchLength(std::span<const Token> tokens, size_t longest) const {
  const size_t toPlace = kSnapshotInterval - position() % kSnapshotInterval;
  const size_t most = std::min({longest, toPlace, tokens.size()});
  size_t length = 1;
  while (length < most && tokens[length].isGenerated == tokens[0].isGenerated) {
    ++length;
  }
  return length;
}

// allLogits: [tokens][vocab], or empty where only those of the last one may be asked for.
Context::Fed Context::feedBatch(std::span<const Token> tokens, bool isLast,
                                const volatile int* cancel, std::span<float> allLogits) {
  const bool wantsAll = !allLogits.empty();
  embed(tokens);
  hasLogits = false;
  const Clock::time_point start = Clock::now();
  const bool finished =
      forward(passes->pass, weights,
              {.embeddings = passes->embedding(0),
               .count = tokens.size(),
               .pos = position(),
               .arithmetic = tokens[0].isGenerated ? qwen35::Arithmetic::SingleToken
                                                   : qwen35::Arithmetic::Batch,
               .hidden = passes->hiddenState(0),
               .logits = wantsAll ? allLogits.data()
                         : isLast ? lastLogits.data()
                                  : nullptr,
               .allLogits = wantsAll,
               .cancel = cancel});
  if (!finished) {
    return Fed::Cancelled;
  }
  if (wantsAll && isLast) {
    const std::span<float> last = allLogits.last(weights.nVocab);
    std::copy(last.begin(), last.end(), lastLogits.begin());
  }
  const Fed outcome = finish(tokens, passes->hiddenState(0), isLast, secondsSince(start));
  return allFinite(allLogits) ? outcome : Fed::Failed;
}

// Of tokens that a pass has gone over: their final states, and whether lastLogits are those of the
// last one.
Context::Fed Context::finish(std::span<const Token> tokens, const float* hidden, bool isLast,
                             double seconds) {
  count(tokens, seconds);
  fed.insert(fed.end(), tokens.begin(), tokens.end());
  if (!allFinite({hidden, tokens.size() * weights.nEmbd}) || (isLast && !allFinite(lastLogits))) {
    return Fed::Failed;
  }
  hasLogits = isLast;
  return Fed::All;
}

Status Context::feedToken(int32_t token) {
  const Token generated{token, true};
  Status status = check({&generated, 1});
  if (!status.ok()) {
    return status;
  }
  return feedBatch({&generated, 1}, /*isLast=*/true, nullptr) == Fed::All ? status : notFinite();
}

void Context::feedTogether(std::span<Context* const> contexts, std::span<const int32_t> tokens,
                           std::span<Status> statuses) {
  if (contexts.empty()) {
    return;
  }
  Passes& passes = *contexts.front()->passes;
  if (!passes.makeRoomForLogits(contexts.front()->weights.nVocab)) {
    std::fill(statuses.begin(), statuses.end(),
              Status::ioError("not enough memory to feed contexts together"));
    return;
  }
  const size_t longest = longestBatch(passes.pass);
  for (size_t at = 0; at < contexts.size(); at += longest) {
    const size_t count = std::min(longest, contexts.size() - at);
    feedGroup(passes, contexts.subspan(at, count), tokens.subspan(at, count),
              statuses.subspan(at, count));
  }
}

// As many as a pass takes.
void Context::feedGroup(Passes& passes, std::span<Context* const> contexts,
                        std::span<const int32_t> tokens, std::span<Status> statuses) {
  std::vector<size_t>& group = passes.fedTogether;
  group.clear();
  passes.sequences.clear();
  for (size_t i = 0; i < contexts.size(); ++i) {
    Context& context = *contexts[i];
    assert(context.passes.get() == &passes);
    const Token token{tokens[i], true};
    statuses[i] = context.check({&token, 1});
    if (!statuses[i].ok()) {
      continue;
    }
    context.hasLogits = false;
    embedRow(context.weights, static_cast<size_t>(token.id), passes.embedding(group.size()));
    passes.sequences.push_back(
        {.model = &context.weights, .first = group.size(), .pos = context.position()});
    group.push_back(i);
  }
  if (group.empty()) {
    return;
  }
  const Clock::time_point start = Clock::now();
  forwardShared(passes.pass, {.sequences = passes.sequences,
                              .embeddings = passes.embedding(0),
                              .hidden = passes.hiddenState(0),
                              .logits = passes.logits.data()});
  const double seconds = secondsSince(start);
  for (size_t row = 0; row < group.size(); ++row) {
    Context& context = *contexts[group[row]];
    const Token token{tokens[group[row]], true};
    std::copy_n(passes.logits.data() + row * context.weights.nVocab, context.weights.nVocab,
                context.lastLogits.begin());
    if (context.finish({&token, 1}, passes.hiddenState(row), /*isLast=*/true, seconds) !=
        Fed::All) {
      statuses[group[row]] = notFinite();
    }
  }
}

Context::Guess::Guess(const qwen35::Model& m)
    : before(m), replay(m, kMostGuessed + 1), logits((kMostGuessed + 1) * m.nVocab) {}

Status Context::feedGuess(std::span<const int32_t> tokens) {
  std::vector<Token> generated;
  for (const int32_t id : tokens) {
    generated.push_back({id, true});
  }
  Status status = check(generated);
  if (!status.ok()) {
    return status;
  }
  try {
    if (guess == nullptr) {
      guess = std::make_unique<Guess>(weights);
    }
  } catch (const std::bad_alloc&) {
    return Status::ioError("not enough memory to guess ahead");
  }
  embed(generated);
  hasLogits = false;
  const Clock::time_point start = Clock::now();
  forward(passes->pass, weights,
          {.embeddings = passes->embedding(0),
           .count = generated.size(),
           .pos = position(),
           .logits = guess->logits.data(),
           .before = &guess->before,
           .replay = &guess->replay,
           .allLogits = true});
  counts.generatedSeconds += secondsSince(start);
  fed.insert(fed.end(), generated.begin(), generated.end());
  guess->count = generated.size();
  return status;
}

std::span<const float> Context::logitsBehind(size_t i) const {
  return {guess->logits.data() + i * weights.nVocab, weights.nVocab};
}

Status Context::keep(size_t count) {
  if (count < guess->count) {
    const Clock::time_point start = Clock::now();
    qwen35::keepTokens(passes->pass, weights, guess->before, guess->replay, count);
    counts.generatedSeconds += secondsSince(start);
    fed.resize(fed.size() - (guess->count - count));
  }
  counts.generatedTokens += count;
  counts.acceptedGuesses += count - 1;
  counts.rejectedGuesses += guess->count - count;
  const std::span<const float> last = logitsBehind(count - 1);
  std::copy(last.begin(), last.end(), lastLogits.begin());
  hasLogits = allFinite(lastLogits);
  return hasLogits ? Status::success() : notFinite();
}

void Context::embed(std::span<const Token> tokens) {
  for (size_t i = 0; i < tokens.size(); ++i) {
    embedRow(weights, static_cast<size_t>(tokens[i].id), passes->embedding(i));
  }
}

void Context::count(std::span<const Token> tokens, double seconds) {
  if (tokens[0].isGenerated) {
    counts.generatedTokens += tokens.size();
    counts.generatedSeconds += seconds;
  } else {
    counts.promptTokens += tokens.size();
    counts.promptSeconds += seconds;
  }
}

uint64_t Context::placeBytes() const {
  return places.count() * qwen35::Snapshot::bytes(weights);
}

void Context::reset() {
  goBackTo(0);
}

}  // namespace engine
