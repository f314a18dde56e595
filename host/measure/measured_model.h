// What zym bench measures: a model behind the program's own engine, or behind a runtime library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "container/model_shape.h"
#include "container/status.h"
#include "engine/context.h"
#include "host/chat/backend.h"
#include "host/measure/bench_measure.h"

namespace zym {

class MeasuredModel {
 public:
  virtual ~MeasuredModel() = default;

  // The model's first passes, so that a measurement after them finds buffers and weights in place.
  virtual kel::Status warmUp() = 0;
  // Fills `positions` from an empty context.
  virtual kel::Status prefill(uint64_t positions, PrefillRun& run,
                              const MeasureProgress& onProgress) = 0;
  // Milliseconds of single decode steps behind `depth` positions, which prefill has filled.
  virtual kel::Status decode(uint64_t depth, size_t nSteps, std::vector<double>& stepMs,
                             const MeasureProgress& onProgress) = 0;
  // Fails when the context has no room for so many steps at this depth; names the options.
  virtual kel::Status checkSize(uint64_t depth, size_t nSteps) const = 0;
};

// Through turns of a conversation, which is all that a runtime library's interface has.
std::unique_ptr<MeasuredModel> measuredThroughTurns(std::unique_ptr<Backend> backend);

// Token by token: prompts of exactly the positions, and steps that choose the best token and feed
// it.
std::unique_ptr<MeasuredModel> measuredEngine(std::unique_ptr<engine::Context> context);

}  // namespace zym
