// How well a model foretells a text, alone or beside a reference that reads the same text: its
// perplexity, and the distance of the two.
//
//   TextScore score;
//   Context::Fed outcome = scoreText({*context}, ids, {.window = 2048, .stride = 1024}, {},
//   nullptr,
//                                    score, status);
//   Perplexity perplexity = perplexityOf(score.losses);
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "container/status.h"
#include "engine/context.h"
#include "engine/perplexity.h"

namespace engine {

struct ScoredModels {
  Context& model;
  Context* reference = nullptr;  // another context, of a model that checkSameVocabulary() lets pass
};

// The windows of a text are those of textWindows().
struct ScoreOptions {
  size_t window = 2048;  // tokens, from 2; a context has room for all but the last of them
  size_t stride = 1024;  // from 1 to window
  size_t threads = 1;    // that compare logits; those of the passes are the contexts' own
};

// Sums over the tokens that count, each of them with what its window holds in front of it.
struct TextScore {
  RunningMean losses;           // negative log-likelihoods; their count is that of the tokens
  RunningMean referenceLosses;  // the same of the reference
  RunningMean excess;           // losses less the reference's, token by token
  ModelDistance distance;       // of the model from the reference
  size_t windows = 0;           // that were read whole
};

// How many positions of how many have been read, by both models together.
using ScoreProgress = std::function<void(uint64_t done, uint64_t total)>;

// Whether ids mean the same in both: as many, and each the same token. The message names the first
// that differs.
kel::Status checkSameVocabulary(const Model& model, const Model& reference);

// Reads the text in batches, in contexts that are emptied for each window; logits of 64 positions
// are held at a time. The result does not depend on threads. Cancelled, as *cancel not being 0
// (which may be null), or Failed with a status: options out of range, a text of less than two
// tokens, and what Context::feed tells. score then has what was read before.
Context::Fed scoreText(const ScoredModels& models, std::span<const int32_t> ids,
                       const ScoreOptions& options, const ScoreProgress& progress,
                       const volatile int* cancel, TextScore& score, kel::Status& status);

}  // namespace engine
