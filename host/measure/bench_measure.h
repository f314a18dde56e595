// The measurements behind zym bench, over a backend.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "container/status.h"
#include "container/zym2_reader.h"
#include "host/chat/backend.h"

namespace zym {

struct Spread {
  double median = 0;
  double min = 0;
  double max = 0;
};

// Of at least one value.
Spread spreadOf(std::vector<double> values);

// What a model asks of the machine.
struct ModelWork {
  uint64_t weightBytes = 0;  // read once for a decoded token; the embedding is the output head too
  uint64_t multiplyAddsPerPrefillToken = 0;  // by weights; only a prompt's last token has a head
};
ModelWork modelWork(const kel::ZYM2Reader& reader);

struct PrefillRun {
  uint64_t positions = 0;  // fed in this run
  double seconds = 0;
};

// A limit of the machine that a measured rate stays below: the probe's answer, asked for again a
// few times while the rate is above it, since a probe has its bad moments too. At last the rate
// itself, which the machine has shown to be possible.
double limitAbove(double rate, const std::function<double()>& probe);

// Told how many positions, or steps, a measurement has done so far; may be null. The time it takes
// is part of no decode step.
using MeasureProgress = std::function<void(uint64_t done)>;

// Feeds text from an empty context until at least `positions` are filled, without generating.
kel::Status measurePrefill(Backend& backend, uint64_t positions, PrefillRun& run,
                           const MeasureProgress& onProgress = nullptr);

// Milliseconds of single decode steps behind a context of at least `behind` positions, which
// measurePrefill has filled: the time between one piece and the next, nSteps of them, in as many
// turns as that takes. When replies are short and their turns fill the context, it is emptied and
// filled again. Fewer steps, or none, when the model gives no two pieces in a turn.
kel::Status measureDecode(Backend& backend, uint64_t behind, size_t nSteps,
                          std::vector<double>& stepMs, const MeasureProgress& onProgress = nullptr);

// Fails when nSteps decode steps behind `behind` positions, fed as above, would not fit into the
// context; the message names the options --prompt, --at and --steps.
kel::Status checkBenchSize(const BackendLimits& limits, uint64_t behind, size_t nSteps);

}  // namespace zym
