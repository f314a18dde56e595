#include "host/measure/bench_measure.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

namespace zym {
namespace {

using Clock = std::chrono::steady_clock;
using kel::Status;

// After so many turns in a row without a step to measure, the model counts as silent.
constexpr int kSilentTurns = 4;
constexpr int kMostProbes = 4;
// Words of one filling turn: few, so that the last one ends soon after the wanted position.
constexpr uint64_t kWordsPerTurn = 256;

double milliseconds(Clock::duration span) {
  return std::chrono::duration<double, std::milli>(span).count();
}

// Positions that filling may go beyond the wanted ones: by the framing of turns, and by words of
// more than one token.
constexpr uint64_t kFillingExtra = 128;
// Positions that a decoding turn takes beside its steps: the framing and the message.
constexpr uint64_t kTurnExtra = 24;

bool contextFull(Backend& backend) {
  return backend.stats().contextTokens >= backend.limits().contextCapacity;
}

std::string filling(uint64_t words) {
  std::string text;
  for (uint64_t i = 0; i < words; ++i) {
    text += i % 8 == 7 ? "runtime " : "the ";
  }
  return text;
}

}  // namespace

ModelWork modelWork(const kel::ZYM2Reader& reader) {
  ModelWork work;
  work.weightBytes = reader.sectionSize(kel::zym2::SectionType::WeightData);
  for (uint32_t i = 0; i < reader.header().tensorCount; ++i) {
    const kel::zym2::TensorEntry* entry = reader.tensorEntry(i);
    if (entry != nullptr && entry->rank == 2 && entry->nameText().starts_with("blk.")) {
      work.multiplyAddsPerPrefillToken += entry->dims[0] * entry->dims[1];
    }
  }
  return work;
}

Spread spreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  const double median =
      values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {median, values.front(), values.back()};
}

double limitAbove(double rate, const std::function<double()>& probe) {
  double limit = probe();
  for (int i = 1; i < kMostProbes && limit < rate; ++i) {
    limit = probe();
  }
  return std::max(limit, rate);
}

Status measurePrefill(Backend& backend, uint64_t positions, PrefillRun& run,
                      const MeasureProgress& onProgress) {
  backend.reset();
  // Set before the turn, so that its text is fed but nothing is generated.
  volatile int cancel = 1;
  const auto start = Clock::now();
  uint64_t filled = 0;
  while (filled < positions) {
    const uint64_t words = std::min(kWordsPerTurn, positions - filled);
    Status status = backend.turn(filling(words), nullptr, &cancel);
    if (!status.ok() && contextFull(backend)) {
      return Status::invalid("the context is full before the decode steps; lower --prompt or --at");
    }
    if (!status.ok()) {
      return status;
    }
    filled = backend.stats().contextTokens;
    if (onProgress) {
      onProgress(filled);
    }
  }
  run.seconds = milliseconds(Clock::now() - start) / 1000;
  run.positions = filled;
  return Status::success();
}

Status measureDecode(Backend& backend, uint64_t depth, size_t nSteps, std::vector<double>& stepMs,
                     const MeasureProgress& onProgress) {
  int silent = 0;
  while (stepMs.size() < nSteps && silent < kSilentTurns) {
    if (contextFull(backend)) {
      PrefillRun again;
      Status status = measurePrefill(backend, depth, again);
      if (!status.ok()) {
        return status;
      }
    }
    volatile int cancel = 0;
    std::optional<Clock::time_point> last;
    const size_t before = stepMs.size();
    const auto onPiece = [&](std::string_view) {
      const auto now = Clock::now();
      if (last) {
        stepMs.push_back(milliseconds(now - *last));
      }
      if (stepMs.size() >= nSteps) {
        cancel = 1;
      }
      if (onProgress) {
        onProgress(stepMs.size());
      }
      last = Clock::now();
    };
    Status status = backend.turn("Hello", onPiece, &cancel);
    // A turn that finds the context full measures nothing; the next round empties it.
    if (!status.ok() && !contextFull(backend)) {
      return status;
    }
    silent = stepMs.size() == before ? silent + 1 : 0;
  }
  return Status::success();
}

Status checkBenchSize(const BackendLimits& limits, uint64_t depth, size_t nSteps) {
  const uint64_t stepsPerTurn = std::max<uint64_t>(limits.turnTokens, 2) - 1;
  const uint64_t turns = nSteps / stepsPerTurn + 1;
  const uint64_t needed = depth + kFillingExtra + nSteps + turns * kTurnExtra;
  if (needed <= limits.contextCapacity) {
    return Status::success();
  }
  return Status::invalid(
      fmt::format("{} steps at depth {} take about {} positions with the framing, the context "
                  "holds {}; lower --steps, or --prompt and --at",
                  nSteps, depth, needed, limits.contextCapacity));
}

}  // namespace zym
