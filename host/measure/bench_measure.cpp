#include "host/measure/bench_measure.h"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "container/model_tensors.h"

namespace zym {
namespace {

using Clock = std::chrono::steady_clock;
using kel::Status;

// After so many turns in a row without a step to measure, the model counts as silent.
constexpr int kSilentTurns = 4;
constexpr int kMostProbes = 4;
// Of one filling turn: few, so that progress is told of now and then.
constexpr uint64_t kPositionsPerTurn = 256;
constexpr std::string_view kFillingWord = "the";

double milliseconds(Clock::duration span) {
  return std::chrono::duration<double, std::milli>(span).count();
}

// Positions that filling may go beyond the wanted ones, by a word of more than one token.
constexpr uint64_t kFillingExtra = 16;
// Positions that a decoding turn takes beside its steps: the framing and the message.
constexpr uint64_t kTurnExtra = 24;

bool contextFull(Backend& backend) {
  return backend.stats().contextTokens >= backend.limits().contextCapacity;
}

constexpr std::string_view kBlockPrefix = "blk.";

// Of an embedding beside an output head a token reads one row, of an output head beside a tied
// embedding and of blocks that are no layers of the shape nothing.
bool isReadForEveryToken(std::string_view name, const kel::ModelShape& shape) {
  const auto nameOf = [](kel::TensorRole role) { return kel::tensorOf(role).suffix; };
  if (name == nameOf(kel::TensorRole::Embedding)) {
    return !shape.ownOutput;
  }
  if (name == nameOf(kel::TensorRole::Output)) {
    return shape.ownOutput;
  }
  uint32_t block = 0;
  if (!name.starts_with(kBlockPrefix)) {
    return true;
  }
  const std::string_view number = name.substr(kBlockPrefix.size());
  std::from_chars(number.data(), number.data() + number.size(), block);
  return block < shape.layers;
}

// All words but the first have a space in front of them, and so the same token or tokens.
std::string filling(uint64_t words) {
  std::string text(kFillingWord);
  for (uint64_t i = 1; i < words; ++i) {
    text += ' ';
    text += kFillingWord;
  }
  return text;
}

// Feeds a text without generating: the flag is set before the turn. used receives the positions
// that the turn took.
Status feed(Backend& backend, const std::string& text, uint64_t& used) {
  volatile int cancel = 1;
  const uint64_t before = backend.stats().contextTokens;
  TurnOutcome outcome;
  Status status = backend.turn(text, {nullptr, nullptr, nullptr, &cancel}, outcome);
  used = backend.stats().contextTokens - before;
  return status;
}

// Words of the next turn, which takes firstWord positions with one. Behind a turn that is not the
// last, room for another one is left.
uint64_t wordsOfTurn(const FillingCost& cost, uint64_t firstWord, uint64_t left) {
  if (left > kPositionsPerTurn) {
    const uint64_t wanted = std::min(kPositionsPerTurn, left - std::min(left, cost.laterTurn));
    return 1 + (wanted - std::min(wanted, firstWord)) / cost.word;
  }
  return 1 + (left - std::min(left, firstWord) + cost.word - 1) / cost.word;
}

}  // namespace

ModelWork modelWork(const kel::ZYM2Reader& reader, const kel::ModelShape& shape) {
  ModelWork work;
  work.weightBytes = reader.sectionSize(kel::zym2::SectionType::WeightData);
  for (uint32_t i = 0; i < reader.header().tensorCount; ++i) {
    const kel::zym2::TensorEntry* entry = reader.tensorEntry(i);
    if (entry == nullptr) {
      continue;
    }
    if (!isReadForEveryToken(entry->nameText(), shape)) {
      work.weightBytes -= std::min(work.weightBytes, entry->byteSize);
    } else if (entry->rank == 2 && entry->nameText().starts_with(kBlockPrefix)) {
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

void ShareOfLimit::afterMeasurement(double rate) {
  const double first = std::exchange(before, 0);
  const double behind = probe();
  if (std::max(first, behind) <= 0) {
    return;
  }
  bool isAsked = false;
  const double limit = limitAbove(
      rate, [&] { return std::exchange(isAsked, true) ? probe() : std::max(first, behind); });
  found.push_back(limit);
  reached.push_back(rate / limit);
}

Status learnFillingCost(Backend& backend, FillingCost& cost) {
  backend.reset();
  uint64_t longer = 0;
  Status status = feed(backend, filling(1), cost.firstTurn);
  if (status.ok()) {
    status = feed(backend, filling(1), cost.laterTurn);
  }
  if (status.ok()) {
    status = feed(backend, filling(2), longer);
  }
  cost.word = std::max<uint64_t>(longer - std::min(longer, cost.laterTurn), 1);
  return status;
}

Status measurePrefill(Backend& backend, const FillingCost& cost, uint64_t positions,
                      PrefillRun& run, const MeasureProgress& onProgress) {
  backend.reset();
  const auto start = Clock::now();
  uint64_t filled = 0;
  while (filled < positions) {
    const uint64_t firstWord = filled == 0 ? cost.firstTurn : cost.laterTurn;
    const uint64_t words = wordsOfTurn(cost, firstWord, positions - filled);
    uint64_t used = 0;
    Status status = feed(backend, filling(words), used);
    if (!status.ok() && contextFull(backend)) {
      return Status::invalid("the context is full before the decode steps; lower --prompt or --at");
    }
    if (!status.ok()) {
      return status;
    }
    filled += used;
    if (onProgress) {
      onProgress(filled);
    }
  }
  run.seconds = milliseconds(Clock::now() - start) / 1000;
  run.positions = filled;
  return Status::success();
}

Status measureDecode(Backend& backend, const FillingCost& cost, uint64_t depth, size_t nSteps,
                     std::vector<double>& stepMs, const MeasureProgress& onProgress) {
  int silent = 0;
  while (stepMs.size() < nSteps && silent < kSilentTurns) {
    if (contextFull(backend)) {
      PrefillRun again;
      Status status = measurePrefill(backend, cost, depth, again);
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
    TurnOutcome outcome;
    Status status = backend.turn("Hello", {onPiece, nullptr, nullptr, &cancel}, outcome);
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
