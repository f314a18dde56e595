#include "host/measure/measured_model.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "engine/sampler.h"

namespace zym {
namespace {

using kel::Status;

class TurnModel : public MeasuredModel {
 public:
  explicit TurnModel(std::unique_ptr<Backend> opened) : backend(std::move(opened)) {}

  Status warmUp() override { return learnFillingCost(*backend, cost); }
  Status prefill(uint64_t positions, PrefillRun& run, const MeasureProgress& onProgress) override {
    return measurePrefill(*backend, cost, positions, run, onProgress);
  }
  Status decode(uint64_t depth, size_t nSteps, std::vector<double>& stepMs,
                const MeasureProgress& onProgress) override {
    return measureDecode(*backend, cost, depth, nSteps, stepMs, onProgress);
  }
  Status checkSize(uint64_t depth, size_t nSteps) const override {
    return checkBenchSize(backend->limits(), depth, nSteps);
  }

 private:
  std::unique_ptr<Backend> backend;
  FillingCost cost;
};

class EngineModel : public MeasuredModel {
 public:
  explicit EngineModel(std::unique_ptr<engine::Context> opened) : context(std::move(opened)) {}

  Status warmUp() override {
    PrefillRun run;
    std::vector<double> stepMs;
    Status status = prefill(1, run, nullptr);
    return status.ok() ? decode(1, 1, stepMs, nullptr) : status;
  }

  Status prefill(uint64_t positions, PrefillRun& run, const MeasureProgress& onProgress) override {
    context->reset();
    std::vector<engine::Token> tokens(positions);
    for (uint64_t i = 0; i < positions; ++i) {
      tokens[i].id = static_cast<int32_t>(i % context->model().sizes().vocab);
    }
    engine::PromptProgress progress;
    if (onProgress) {
      progress = [&](size_t done, size_t) { onProgress(done); };
    }
    Status status;
    const auto start = Clock::now();
    context->feed(tokens, progress, nullptr, status);
    run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    run.positions = context->position();
    return status;
  }

  Status decode(uint64_t /*depth*/, size_t nSteps, std::vector<double>& stepMs,
                const MeasureProgress& onProgress) override {
    for (size_t step = 0; step < nSteps; ++step) {
      const auto start = Clock::now();
      const int32_t token = sampler.next(context->logits(), {});
      Status status = context->feedToken(token);
      if (!status.ok()) {
        return status;
      }
      stepMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
      if (onProgress) {
        onProgress(step + 1);
      }
    }
    return Status::success();
  }

  Status checkSize(uint64_t depth, size_t nSteps) const override {
    const uint64_t needed = depth + nSteps;
    if (needed <= context->capacity()) {
      return Status::success();
    }
    return Status::invalid(
        fmt::format("{} steps at depth {} take {} positions, the context holds {}; lower --steps, "
                    "or --prompt and --at",
                    nSteps, depth, needed, context->capacity()));
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::unique_ptr<engine::Context> context;
  engine::Sampler sampler{0};
};

}  // namespace

std::unique_ptr<MeasuredModel> measuredThroughTurns(std::unique_ptr<Backend> backend) {
  return std::make_unique<TurnModel>(std::move(backend));
}

std::unique_ptr<MeasuredModel> measuredEngine(std::unique_ptr<engine::Context> context) {
  return std::make_unique<EngineModel>(std::move(context));
}

}  // namespace zym
