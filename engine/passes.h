// What the passes of contexts work with: threads and scratch. A context makes its own, unless it is
// given one to share:
//
//   std::shared_ptr<Passes> passes;
//   kel::Status status = Passes::create(model, {.positions = 8192}, passes);
//   for (auto& context : contexts)
//     status = Context::create(model, {.positions = 8192, .passes = passes}, context);
//
// Contexts that share passes are used by one thread at a time, all of them together, and can be fed
// together (Context::feedTogether).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "container/status.h"
#include "engine/model.h"
#include "qwen35/context.h"
#include "qwen35/model.h"
#include "qwen35/state_buffer.h"

namespace engine {

struct PassesOptions {
  uint64_t positions = 0;  // of the longest context; 0: as ContextOptions have it
  size_t threads = 0;      // at most; 0: as qwen35/processors.h finds
  const qwen35::KernelTable* kernels = nullptr;  // null: the best that the machine has
};

class Passes {
 public:
  // IoError when there is not enough memory.
  static kel::Status create(const std::shared_ptr<const Model>& model, const PassesOptions& options,
                            std::shared_ptr<Passes>& out);

  // For contexts of the model with room for as many positions as m, which is bound to it, or fewer.
  // Throws std::bad_alloc.
  Passes(std::shared_ptr<const Model> model, const qwen35::Model& m, size_t threads,
         const qwen35::KernelTable* kernels);

  size_t maxThreads() { return pass.team().maxThreads(); }
  uint64_t positions() const { return pass.maxPositions(); }

 private:
  friend class Context;

  // False where memory has none.
  bool makeRoomForLogits(size_t vocab);

  float* embedding(size_t token) { return embeddings.data() + token * width; }
  float* hiddenState(size_t token) { return hidden.data() + token * width; }

  std::shared_ptr<const Model> shared;
  qwen35::Context pass;
  size_t width;
  std::vector<float> embeddings;  // of a batch
  std::vector<float> hidden;      // likewise

  // Of contexts that are fed together, made for the first of them.
  qwen35::StateBuffer logits;  // [tokens][vocab]
  std::vector<qwen35::Sequence> sequences;
  std::vector<size_t> fedTogether;  // which of the contexts
};

}  // namespace engine
