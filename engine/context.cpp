#include "engine/context.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "qwen35/aligned_vectors.h"
#include "qwen35/diagnostics.h"
#include "qwen35/forward.h"
#include "qwen35/processors.h"

namespace engine {

namespace {

using kel::Status;

// False for infinities and NaN.
bool allFinite(std::span<const float> values) {
  return std::all_of(values.begin(), values.end(), [](float value) {
    return std::fabs(value) <= std::numeric_limits<float>::max();
  });
}

Status notFinite() {
  return {kel::StatusCode::Corrupted,
          "the model's numbers run out of range; its weights are damaged or not those of a model"};
}

using Clock = std::chrono::steady_clock;

// The model with the room that is asked for. Binding cannot fail: the model was found to be
// complete when it was opened.
qwen35::Model bound(const Model& model, const ContextOptions& options) {
  qwen35::Model weights{.shape = model.shape(), .cacheType = options.cacheType};
  qwen35::initLayers(model.file(), weights, options.positions);
  qwen35::bindModel(model.file(), weights, options.positions);
  qwen35::alignVectors(weights);
  return weights;
}

// As many tokens as diagnostics, which look at passes of one, leave to a batch.
size_t longestBatch(const qwen35::Context& passes) {
  return qwen35::Diagnostics::fromEnvironment().any() ? 1 : passes.maxTokens();
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
      weights(bound(*shared, options)),
      passes(std::make_unique<qwen35::Context>(
          weights, qwen35::ContextOptions{.maxTokens = qwen35::kBatchTokens,
                                          .threads = options.threads == 0 ? qwen35::defaultThreads()
                                                                          : options.threads,
                                          .kernels = options.kernels})),
      places(weights, options.snapshotBytes),
      embeddings(passes->maxTokens() * weights.nEmbd),
      hidden(embeddings.size()),
      lastLogits(weights.nVocab) {}

Status Context::create(std::shared_ptr<const Model> model, const ContextOptions& options,
                       std::unique_ptr<Context>& out) {
  const uint64_t most = model->shape().contextLength;
  if (options.positions > most) {
    return Status::invalid("a context of " + std::to_string(options.positions) +
                           " positions; the model has room for " + std::to_string(most));
  }
  ContextOptions asked = options;
  if (asked.positions == 0) {
    asked.positions = std::min(most, kDefaultPositions);
  }
  try {
    out.reset(new Context(std::move(model), asked));
  } catch (const std::bad_alloc&) {
    return Status::ioError("not enough memory for a context of " + std::to_string(asked.positions) +
                           " positions");
  }
  return Status::success();
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

size_t Context::resume(std::span<const Token> wanted) {
  const size_t longest = std::min(wanted.size(), fed.size());
  const size_t alike = static_cast<size_t>(
      std::mismatch(wanted.begin(), wanted.begin() + static_cast<std::ptrdiff_t>(longest),
                    fed.begin())
          .first -
      wanted.begin());
  const bool isHere = alike == fed.size() && (alike < wanted.size() || hasLogits);
  if (!isHere) {
    // Behind a place that is gone back to there must be something to feed: it has no logits.
    goBackTo(places.nearest(std::min(alike, wanted.empty() ? 0 : wanted.size() - 1)));
  }
  counts.reusedTokens += fed.size();
  return fed.size();
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
  const uint64_t before = position();
  remember();
  const Fed outcome = feedRuns(tokens, progress, cancel, status);
  if (outcome != Fed::All) {
    goBackTo(places.nearest(before));
  }
  return outcome;
}

Context::Fed Context::feedRuns(std::span<const Token> tokens, const PromptProgress& progress,
                               const volatile int* cancel, Status& status) {
  const size_t longest = longestBatch(*passes);
  const uint64_t before = position();
  for (size_t at = 0; at < tokens.size();) {
    const auto batch = tokens.subspan(at, batchLength(tokens.subspan(at), longest));
    at += batch.size();
    const Fed outcome = feedBatch(batch, at == tokens.size(), cancel);
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
  const size_t longest = longestBatch(*passes);
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
      forward(*passes, weights,
              {.embeddings = embeddings.data(),
               .count = tokens.size(),
               .pos = position(),
               .arithmetic = tokens[0].isGenerated ? qwen35::Arithmetic::SingleToken
                                                   : qwen35::Arithmetic::Batch,
               .hidden = hidden.data(),
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
  count(tokens, std::chrono::duration<double>(Clock::now() - start).count());
  fed.insert(fed.end(), tokens.begin(), tokens.end());
  if (!allFinite({hidden.data(), tokens.size() * weights.nEmbd}) || !allFinite(allLogits) ||
      (isLast && !allFinite(lastLogits))) {
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
  forward(*passes, weights,
          {.embeddings = embeddings.data(),
           .count = generated.size(),
           .pos = position(),
           .logits = guess->logits.data(),
           .before = &guess->before,
           .replay = &guess->replay,
           .allLogits = true});
  counts.generatedSeconds += std::chrono::duration<double>(Clock::now() - start).count();
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
    qwen35::keepTokens(*passes, weights, guess->before, guess->replay, count);
    counts.generatedSeconds += std::chrono::duration<double>(Clock::now() - start).count();
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
    embedRow(weights, static_cast<size_t>(tokens[i].id), embeddings.data() + i * weights.nEmbd);
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

void Context::reset() {
  goBackTo(0);
}

}  // namespace engine
