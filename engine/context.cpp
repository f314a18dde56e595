#include "engine/context.h"

#include <algorithm>
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

// As many tokens as diagnostics, which look at passes of one, leave to a batch.
size_t longestBatch(const qwen35::Context& passes) {
  return qwen35::Diagnostics::fromEnvironment().any() ? 1 : passes.maxTokens();
}

}  // namespace

Context::Context(std::shared_ptr<const Model> model, const ContextOptions& options)
    : shared(std::move(model)), weights{.shape = shared->shape()} {
  // Cannot fail: the model was found to be complete when it was opened.
  qwen35::initLayers(shared->file(), weights, options.positions);
  qwen35::bindModel(shared->file(), weights, options.positions);
  qwen35::alignVectors(weights);
  passes = std::make_unique<qwen35::Context>(
      weights, qwen35::ContextOptions{
                   .maxTokens = qwen35::kBatchTokens,
                   .threads = options.threads == 0 ? qwen35::defaultThreads() : options.threads,
                   .kernels = options.kernels});
  beforePrompt = std::make_unique<qwen35::Snapshot>(weights);
  embeddings.resize(passes->maxTokens() * weights.nEmbd);
  hidden.resize(embeddings.size());
  lastLogits.resize(weights.nVocab);
}

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

Status Context::checkPrompt(std::span<const int32_t> tokens) const {
  const uint64_t room = capacity() - fed;
  if (tokens.size() > room) {
    return Status::invalid("the text takes " + std::to_string(tokens.size()) + " tokens, but " +
                           std::to_string(room) + " of " + std::to_string(capacity()) +
                           " positions are free");
  }
  const auto unfit = std::find_if(tokens.begin(), tokens.end(), [this](int32_t token) {
    return token < 0 || static_cast<uint64_t>(token) >= weights.nVocab;
  });
  return unfit == tokens.end()
             ? Status::success()
             : Status::invalid("token " + std::to_string(*unfit) + " is none of the model's " +
                               std::to_string(weights.nVocab));
}

Context::Fed Context::feedPrompt(std::span<const int32_t> tokens, const PromptProgress& progress,
                                 const volatile int* cancel, Status& status) {
  status = checkPrompt(tokens);
  if (!status.ok()) {
    return Fed::Failed;
  }
  const uint64_t before = fed;
  if (before > 0) {
    beforePrompt->take(weights);
  }
  const Fed outcome = feedBatches(tokens, progress, cancel, status);
  if (outcome == Fed::All) {
    return outcome;
  }
  if (before == 0) {
    reset();
  } else {
    beforePrompt->restore(weights);
    fed = before;
  }
  return outcome;
}

Context::Fed Context::feedBatches(std::span<const int32_t> tokens, const PromptProgress& progress,
                                  const volatile int* cancel, Status& status) {
  const size_t longest = longestBatch(*passes);
  for (size_t at = 0; at < tokens.size(); at += longest) {
    const auto batch = tokens.subspan(at, std::min(longest, tokens.size() - at));
    const size_t done = at + batch.size();
    const Fed outcome = feedBatch(batch, done == tokens.size(), cancel);
    if (outcome == Fed::Failed) {
      status = notFinite();
    }
    if (outcome != Fed::All) {
      return outcome;
    }
    if (progress) {
      progress(done, tokens.size());
    }
  }
  return Fed::All;
}

Context::Fed Context::feedBatch(std::span<const int32_t> tokens, bool isLast,
                                const volatile int* cancel) {
  embed(tokens);
  const bool finished = forward(*passes, weights,
                                {.embeddings = embeddings.data(),
                                 .count = tokens.size(),
                                 .pos = fed,
                                 .arithmetic = qwen35::Arithmetic::Batch,
                                 .hidden = hidden.data(),
                                 .logits = isLast ? lastLogits.data() : nullptr,
                                 .cancel = cancel});
  if (!finished) {
    return Fed::Cancelled;
  }
  fed += tokens.size();
  return allFinite({hidden.data(), tokens.size() * weights.nEmbd}) &&
                 (!isLast || allFinite(lastLogits))
             ? Fed::All
             : Fed::Failed;
}

Status Context::feedToken(int32_t token) {
  Status status = checkPrompt({&token, 1});
  if (!status.ok()) {
    return status;
  }
  embed({&token, 1});
  forward(*passes, weights,
          {.embeddings = embeddings.data(), .pos = fed, .logits = lastLogits.data()});
  ++fed;
  return allFinite(lastLogits) ? status : notFinite();
}

void Context::embed(std::span<const int32_t> tokens) {
  for (size_t i = 0; i < tokens.size(); ++i) {
    embedRow(weights, static_cast<size_t>(tokens[i]), embeddings.data() + i * weights.nEmbd);
  }
}

void Context::reset() {
  qwen35::resetModel(weights);
  fed = 0;
}

}  // namespace engine
