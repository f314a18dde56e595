#include "engine/passes.h"

#include <new>
#include <string>
#include <utility>

#include "engine/bound_model.h"
#include "qwen35/processors.h"

namespace engine {

Passes::Passes(std::shared_ptr<const Model> model, const qwen35::Model& m, size_t threads,
               const qwen35::KernelTable* kernels)
    : shared(std::move(model)),
      pass(m, {.maxTokens = qwen35::kBatchTokens,
               .threads = threads == 0 ? qwen35::defaultThreads() : threads,
               .kernels = kernels}),
      width(m.nEmbd),
      embeddings(pass.maxTokens() * width),
      hidden(embeddings.size()) {}

kel::Status Passes::create(const std::shared_ptr<const Model>& model, const PassesOptions& options,
                           std::shared_ptr<Passes>& out) {
  uint64_t positions = options.positions;
  kel::Status status = choosePositions(*model, positions);
  if (!status.ok()) {
    return status;
  }
  try {
    const qwen35::Model shape = boundModel(*model, positions, qwen35::CacheType::F32);
    out = std::make_shared<Passes>(model, shape, options.threads, options.kernels);
  } catch (const std::bad_alloc&) {
    return kel::Status::ioError("not enough memory for passes over " + std::to_string(positions) +
                                " positions");
  }
  return status;
}

bool Passes::makeRoomForLogits(size_t vocab) {
  try {
    if (logits.empty()) {
      sequences.reserve(pass.maxTokens());
      fedTogether.reserve(pass.maxTokens());
      logits = qwen35::StateBuffer(pass.maxTokens() * vocab);
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace engine
