// zym bench: how fast a model runs here, and how close to the memory's own speed.
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "container/zym2_reader.h"
#include "host/chat/engine_backend.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/cli/threads.h"
#include "host/measure/bench_measure.h"
#include "host/measure/cache_size.h"
#include "host/measure/measured_model.h"
#include "host/measure/memory_use.h"
#include "host/measure/multiply_peak.h"
#include "host/measure/read_bandwidth.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"
#include "host/terminal/units.h"
#include "qwen35/simd/instruction_sets.h"

namespace zym {
namespace {

using kel::Status;

struct BenchOptions {
  EngineOptions engine;
  std::shared_ptr<ModelArgument> model;
  int repetitions = 5;
  uint64_t prompt = 128;
  size_t steps = 32;
  uint64_t at = 0;
  bool json = false;
};

struct BenchReport {
  double createSeconds = 0;
  ModelWork work;
  bool fitsCaches = false;             // weights that need not come from memory
  std::vector<double> bandwidths;      // bytes a second, beside the repetitions
  std::vector<double> readShares;      // of them, that decoding reaches
  std::vector<double> multiplyPeaks;   // multiply-adds a second, beside the repetitions
  std::vector<double> multiplyShares;  // of them, that the prefill's products reach
  std::vector<double> prefillSpeeds;   // tokens a second, one for each repetition
  std::vector<double> decodeSpeeds;
  uint64_t prefillPositions = 0;
  uint64_t decodeDepth = 0;  // positions filled before the decode steps
  MemoryUse memory;
  int threads = 0;
  std::string kernels;  // by the code that the runtime chooses them with
};

// What the model is measured through, and what it asks of the machine. A runtime library takes
// every model for one of the fixed shape.
Status openMeasured(const BenchOptions& options, std::unique_ptr<MeasuredModel>& measured,
                    ModelWork& work) {
  if (namesPlugin(options.engine)) {
    Engine engine;
    Status status = openEngine(options.engine, engine);
    kel::ZYM2Reader reader;
    if (status.ok()) {
      status = reader.open(options.engine.model.c_str());
    }
    if (status.ok()) {
      work = modelWork(reader, kel::kFixedShape);
      measured = measuredThroughTurns(std::move(engine.backend));
    }
    return status;
  }
  std::unique_ptr<engine::Context> context;
  Status status = checkInputFile(options.engine.model);
  if (status.ok()) {
    status = openContext(options.engine.model, {}, context);
  }
  if (status.ok()) {
    const engine::Model& model = context->model();
    work = modelWork(model.file().reader, model.shape());
    measured = measuredEngine(std::move(context));
  }
  return status;
}

// Positions that are filled before the decode steps.
uint64_t decodeDepth(const BenchOptions& options) {
  return options.at > 0 ? options.at : options.prompt;
}

// Each measurement by itself: the prefill generates nothing, decoding has a depth of its own.
Status checkSizes(const MeasuredModel& measured, const BenchOptions& options) {
  Status status = measured.checkSize(options.prompt, 0);
  if (status.ok()) {
    status = measured.checkSize(decodeDepth(options), options.steps);
  }
  return status;
}

// One bar over all measurements, whose lengths are known beforehand.
class BenchProgress {
 public:
  explicit BenchProgress(const BenchOptions& options)
      : total((options.prompt + options.at + options.steps) *
              static_cast<uint64_t>(options.repetitions)) {
    bar.update(0, total);
  }

  // What a measurement of this many positions, which begins now, reports its progress to.
  MeasureProgress next(uint64_t length) {
    const uint64_t begin = begun;
    begun += length;
    return
        [this, begin, length](uint64_t done) { bar.update(begin + std::min(done, length), total); };
  }

 private:
  Progress bar{"measuring", ProgressUnit::Positions};
  uint64_t total;
  uint64_t begun = 0;
};

// The machine's limits, beside which the repetitions are measured.
struct Limits {
  ShareOfLimit reads;       // bytes a second
  ShareOfLimit multiplies;  // multiply-adds a second
};

size_t probedBytes() {
  return bandwidthBufferBytes(lastLevelCacheBytes(), memoryBytes());
}

Status prefillOnce(MeasuredModel& measured, const BenchOptions& options, BenchProgress& progress,
                   ShareOfLimit& multiplies, BenchReport& report) {
  PrefillRun prefill;
  multiplies.beforeMeasurement();
  Status status = measured.prefill(options.prompt, prefill, progress.next(options.prompt));
  if (!status.ok()) {
    return status;
  }
  const double speed = static_cast<double>(prefill.positions) / prefill.seconds;
  multiplies.afterMeasurement(speed * static_cast<double>(report.work.multiplyAddsPerPrefillToken));
  report.prefillSpeeds.push_back(speed);
  report.prefillPositions = prefill.positions;
  report.decodeDepth = prefill.positions;
  return status;
}

// Weights that the caches hold have no limit of reads.
Status decodeOnce(MeasuredModel& measured, const BenchOptions& options, BenchProgress& progress,
                  ShareOfLimit& reads, BenchReport& report) {
  std::vector<double> stepMs;
  if (!report.fitsCaches) {
    reads.beforeMeasurement();
  }
  Status status =
      measured.decode(decodeDepth(options), options.steps, stepMs, progress.next(options.steps));
  if (status.ok() && stepMs.empty()) {
    return Status::invalid("the model gives no text to measure");
  }
  if (!status.ok()) {
    return status;
  }
  const double speed = 1000 / spreadOf(stepMs).median;
  if (!report.fitsCaches) {
    reads.afterMeasurement(speed * static_cast<double>(report.work.weightBytes));
  }
  report.decodeSpeeds.push_back(speed);
  return status;
}

Status measureOnce(MeasuredModel& measured, const BenchOptions& options, BenchProgress& progress,
                   Limits& limits, BenchReport& report) {
  Status status = prefillOnce(measured, options, progress, limits.multiplies, report);
  if (status.ok() && options.at > 0) {
    PrefillRun prefill;
    status = measured.prefill(options.at, prefill, progress.next(options.at));
    report.decodeDepth = prefill.positions;
  }
  if (status.ok()) {
    status = decodeOnce(measured, options, progress, limits.reads, report);
  }
  return status;
}

Status measureRepeatedly(MeasuredModel& measured, const BenchOptions& options,
                         BenchReport& report) {
  const size_t bufferBytes = probedBytes();
  const auto probeReads = [&] { return readBandwidth(bufferBytes, report.threads); };
  Limits limits{ShareOfLimit(probeReads),
                ShareOfLimit([&] { return multiplyPeak(report.threads, report.kernels); })};
  BenchProgress progress(options);
  Status status = measured.warmUp();
  for (int i = 0; status.ok() && i < options.repetitions; ++i) {
    status = measureOnce(measured, options, progress, limits, report);
  }
  if (!status.ok()) {
    return status;
  }
  report.memory = memoryUse();
  report.bandwidths = report.fitsCaches ? std::vector<double>{probeReads()} : limits.reads.limits();
  report.readShares = limits.reads.shares();
  report.multiplyPeaks = limits.multiplies.limits();
  report.multiplyShares = limits.multiplies.shares();
  return status;
}

Status measure(const BenchOptions& options, BenchReport& report) {
  report.threads = threadCount();
  report.kernels = qwen35::instructionSet().name;
  std::unique_ptr<MeasuredModel> measured;
  const auto start = std::chrono::steady_clock::now();
  Status status = openMeasured(options, measured, report.work);
  const std::chrono::duration<double> created = std::chrono::steady_clock::now() - start;
  report.createSeconds = created.count();
  if (status.ok()) {
    status = checkSizes(*measured, options);
  }
  if (!status.ok()) {
    return status;
  }
  report.fitsCaches = report.work.weightBytes <= lastLevelCacheBytes();
  return measureRepeatedly(*measured, options, report);
}

// Without a value where nothing was found.
std::optional<double> medianOf(const std::vector<double>& values) {
  return values.empty() ? std::nullopt : std::optional(spreadOf(values).median);
}

std::string spreadText(const std::vector<double>& values, double unit = 1) {
  const Spread spread = spreadOf(values);
  return fmt::format("{:>9.2f} {:>9.2f} {:>9.2f}", spread.median / unit, spread.min / unit,
                     spread.max / unit);
}

std::string limitText(const std::vector<double>& limits, double unit) {
  return limits.empty() ? fmt::format("{:>29}", "none: no memory to probe")
                        : spreadText(limits, unit);
}

std::string shareText(const std::vector<double>& shares, bool fitsCaches) {
  if (fitsCaches) {
    return fmt::format("{:>29}", "none: weights fit the caches");
  }
  return limitText(shares, 0.01);
}

void printTable(const BenchOptions& options, const BenchReport& report) {
  const std::string name = std::filesystem::path(options.model->given).filename().string();
  fmt::print("| {:<33} | {:>9} {:>9} {:>9} |\n", name + ", tokens/s", "median", "min", "max");
  fmt::print("|{:-<35}|{:->31}|\n", "", "");
  fmt::print("| {:<33} | {} |\n", fmt::format("prefill, {} positions", report.prefillPositions),
             spreadText(report.prefillSpeeds));
  fmt::print("| {:<33} | {} |\n", fmt::format("decode at depth {}", report.decodeDepth),
             spreadText(report.decodeSpeeds));
  fmt::print("| {:<33} | {:>29} |\n", "weights read for a token",
             bytesText(report.work.weightBytes));
  fmt::print("| {:<33} | {} |\n", "read bandwidth found, GB/s", limitText(report.bandwidths, 1e9));
  fmt::print("| {:<33} | {} |\n", "decode, share of it, %",
             shareText(report.readShares, report.fitsCaches));
  fmt::print("| {:<33} | {:>27.1f} G |\n", "multiply-adds of a prefill token",
             static_cast<double>(report.work.multiplyAddsPerPrefillToken) / 1e9);
  fmt::print("| {:<33} | {} |\n", "multiply-adds found, G/s", limitText(report.multiplyPeaks, 1e9));
  fmt::print("| {:<33} | {} |\n", "prefill, share of them, %",
             shareText(report.multiplyShares, false));
  fmt::print("| {:<33} | {:>26.3f} s |\n", "create", report.createSeconds);
  fmt::print("| {:<33} | {:>29} |\n", "resident memory", bytesText(report.memory.resident));
  fmt::print("| {:<33} | {:>29} |\n", "of that pages of files", bytesText(report.memory.file));
  fmt::print("| {:<33} | {:>29} |\n", fmt::format("threads ({} repetitions)", options.repetitions),
             report.threads);
  fmt::print("| {:<33} | {:>29} |\n", "kernels", report.kernels);
}

nlohmann::ordered_json spreadJson(const std::vector<double>& speeds) {
  const Spread spread = spreadOf(speeds);
  return {{"median", spread.median}, {"min", spread.min}, {"max", spread.max}};
}

void printJson(const BenchOptions& options, const BenchReport& report) {
  const auto json = [](const std::optional<double>& value) {
    return value ? nlohmann::ordered_json(*value) : nullptr;
  };
  const nlohmann::ordered_json all = {
      {"model", options.model->given},
      {"threads", report.threads},
      {"kernels", report.kernels},
      {"repetitions", options.repetitions},
      {"prefillPositions", report.prefillPositions},
      {"prefillTokensPerSecond", spreadJson(report.prefillSpeeds)},
      {"decodeDepth", report.decodeDepth},
      {"decodeTokensPerSecond", spreadJson(report.decodeSpeeds)},
      {"weightBytes", report.work.weightBytes},
      {"readBytesPerSecond", json(medianOf(report.bandwidths))},
      {"decodeBandwidthShare", json(medianOf(report.readShares))},
      {"multiplyAddsPerPrefillToken", report.work.multiplyAddsPerPrefillToken},
      {"multiplyAddsPerSecond", json(medianOf(report.multiplyPeaks))},
      {"prefillMultiplyShare", json(medianOf(report.multiplyShares))},
      {"createSeconds", report.createSeconds},
      {"residentBytes", report.memory.resident},
      {"residentFileBytes", report.memory.file}};
  fmt::print("{}\n", all.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

int bench(const BenchOptions& options) {
  BenchReport report;
  const Status status = measure(options, report);
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  if (options.json) {
    printJson(options, report);
  } else {
    printTable(options, report);
  }
  return 0;
}

}  // namespace

void addBench(const Command& program, Action& action) {
  auto options = std::make_shared<BenchOptions>();
  const Command command = program.addCommand("bench", "Measure speed and memory");
  options->model = addModel(command, options->engine);
  command.addOption("--repetitions", options->repetitions, "Runs to take the median of")
      .range(1, 1000)
      .showDefault();
  command.addOption("--prompt", options->prompt, "Positions of the prefill, framing and all")
      .range(1, 262144)
      .showDefault();
  command.addOption("--steps", options->steps, "Decode steps timed in each repetition")
      .range(1, 4096)
      .showDefault();
  command
      .addOption("--at", options->at,
                 "Measure decoding at this depth: with so many positions filled before "
                 "(default: those of the prompt)")
      .range(1, 262144)
      .typeName("N");
  command.addFlag("--json", options->json, "One JSON object");
  addExamples(command,
              "  zym bench model.zym\n"
              "  zym bench model.zym --at 4000 --repetitions 3\n"
              "  zym bench model.zym --threads 2 --json");
  command.onCall([options, &action] {
    action = onModel(options->model, options->engine.model, [options] { return bench(*options); });
  });
}

}  // namespace zym
