// One conversation's place in a model: the positions fed so far, as caches and recurrent state, and
// the logits behind the last of them.
//
// Prompt tokens take the batch arithmetic, generated ones the single-token arithmetic
// (docs/architecture.md), so that a text's numbers do not depend on how it was cut into calls.
// Used by one thread at a time; the passes inside use several. Contexts are independent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "container/status.h"
#include "engine/model.h"
#include "qwen35/context.h"
#include "qwen35/model.h"
#include "qwen35/snapshot.h"

namespace engine {

// Positions of a context where nobody says how many, and the model has room for as many.
constexpr uint64_t kDefaultPositions = 32768;

struct ContextOptions {
  uint64_t positions = 0;  // at most the model's own; 0: those, at most kDefaultPositions
  size_t threads = 0;      // at most; 0: as qwen35/processors.h finds
  const qwen35::KernelTable* kernels = nullptr;  // null: the best that the machine has
};

// Told how many tokens of a prompt have been fed, after each batch.
using PromptProgress = std::function<void(size_t done, size_t total)>;

class Context {
 public:
  // Memory for the positions is taken as they are filled. IoError when there is not enough.
  static kel::Status create(std::shared_ptr<const Model> model, const ContextOptions& options,
                            std::unique_ptr<Context>& out);

  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  enum class Fed : uint8_t { All, Cancelled, Failed };

  // Feeds the tokens of a prompt behind what is there; logits() are then those of the last. All or
  // nothing: a prompt that has no room or a token without an embedding row is refused before it is
  // read, one whose numbers are not finite, or which *cancel ends by not being 0 (looked at several
  // times a second; may be null), leaves the context as it was. status says why it failed.
  Fed feedPrompt(std::span<const int32_t> tokens, const PromptProgress& progress,
                 const volatile int* cancel, kel::Status& status);

  // Feeds a generated token. After a failure for numbers that are not finite, only reset() helps.
  kel::Status feedToken(int32_t token);

  // [vocab] behind the last position; meaningless while there is none.
  std::span<const float> logits() const { return lastLogits; }

  uint64_t position() const { return fed; }  // filled
  uint64_t capacity() const { return weights.maxCtx; }

  // Empties it.
  void reset();

  const Model& model() const { return *shared; }

 private:
  Context(std::shared_ptr<const Model> model, const ContextOptions& options);  // bad_alloc
  kel::Status checkPrompt(std::span<const int32_t> tokens) const;
  Fed feedBatches(std::span<const int32_t> tokens, const PromptProgress& progress,
                  const volatile int* cancel, kel::Status& status);
  Fed feedBatch(std::span<const int32_t> tokens, bool isLast, const volatile int* cancel);
  void embed(std::span<const int32_t> tokens);

  std::shared_ptr<const Model> shared;
  qwen35::Model weights;  // bound to the shared file; caches and state of its own
  std::unique_ptr<qwen35::Context> passes;
  std::unique_ptr<qwen35::Snapshot> beforePrompt;
  std::vector<float> embeddings;  // of a batch
  std::vector<float> hidden;      // likewise
  std::vector<float> lastLogits;
  uint64_t fed = 0;
};

}  // namespace engine
