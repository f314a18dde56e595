// The measurements that zym bench makes with a backend.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "container/model_shape.h"
#include "container/status.h"
#include "container/zym2_reader.h"
#include "host/chat/backend.h"

namespace zym {

struct Spread {
  double median = 0;
  double min = 0;
  double max = 0;
};

// values: at least one.
Spread spreadOf(std::vector<double> values);

// What a model asks of the machine.
struct ModelWork {
  // Read once for each decoded token, the output head or the embedding that serves as it with them.
  uint64_t weightBytes = 0;
  // One for each weight of the blocks; only a prompt's last token has an output head.
  uint64_t multiplyAddsPerPrefillToken = 0;
};
ModelWork modelWork(const kel::ZYM2Reader& reader, const kel::ModelShape& shape);

// What the turns take that measurements feed: framing comes with every one of them, and the
// backend tells of positions only. Of a vocabulary that has the filling word as a token, a word is
// a position.
struct FillingCost {
  uint64_t firstTurn = 1;  // positions of the first turn of a conversation, with one word
  uint64_t laterTurn = 1;  // of every other turn, with one word
  uint64_t word = 1;       // of each further word
};
// Found by a few short turns, which are the model's first passes as well: a measurement after them
// finds buffers and weights in place.
kel::Status learnFillingCost(Backend& backend, FillingCost& cost);

struct PrefillRun {
  uint64_t positions = 0;  // fed in this run
  double seconds = 0;
};

// A limit of the machine that a measured rate stays below: the probe's answer, asked for again a
// few times while the rate is above it, since a probe has its bad moments too. At last the rate
// itself, which the machine has shown to be possible.
double limitAbove(double rate, const std::function<double()>& probe);

// What part of a limit of the machine each measurement reaches. Where others use the machine the
// limit changes within seconds, so it is probed before and after every measurement, and the greater
// answer is that measurement's.
class ShareOfLimit {
 public:
  explicit ShareOfLimit(std::function<double()> limitProbe) : probe(std::move(limitProbe)) {}

  void beforeMeasurement() { before = probe(); }
  // rate: what was measured, in the unit of the probe. A probe that answers 0 has found nothing,
  // and where both did the measurement has no share.
  void afterMeasurement(double rate);

  // One for each measurement that has a share.
  const std::vector<double>& limits() const { return found; }
  const std::vector<double>& shares() const { return reached; }

 private:
  std::function<double()> probe;
  double before = 0;
  std::vector<double> found;
  std::vector<double> reached;
};

// Called with the positions, or decode steps, that a measurement has done so far; may be null. No
// decode step includes the time that the call takes.
using MeasureProgress = std::function<void(uint64_t done)>;

// Fills `positions` from an empty context, without generating. Framing counts, so that the context
// then holds exactly so many; more where they do not suffice for the first turn's framing, or where
// a word takes several.
kel::Status measurePrefill(Backend& backend, const FillingCost& cost, uint64_t positions,
                           PrefillRun& run, const MeasureProgress& onProgress = nullptr);

// Milliseconds of single decode steps: nSteps times the time from one piece to the next, over as
// many turns as that takes. measurePrefill has filled the context to `depth` positions before.
// Short replies take many turns: when these have filled the context, it is emptied and filled to
// `depth` again. Gives fewer steps, or none, when the model's replies have no two pieces.
kel::Status measureDecode(Backend& backend, const FillingCost& cost, uint64_t depth, size_t nSteps,
                          std::vector<double>& stepMs, const MeasureProgress& onProgress = nullptr);

// Fails when nSteps decode steps at this depth, fed as above, would not fit into the context; the
// message names the options --prompt, --at and --steps.
kel::Status checkBenchSize(const BackendLimits& limits, uint64_t depth, size_t nSteps);

}  // namespace zym
