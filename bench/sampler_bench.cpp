// One choice from 250,000 logits: session/sampler.h, and engine/sampler.h in every way that it has
// of cutting the candidates. One thread.
#include <benchmark/benchmark.h>

#include <vector>

#include "engine/sampler.h"
#include "session/sampler.h"

namespace {

constexpr size_t kVocabulary = 250'000;

void sampleOnce(benchmark::State& state, float temperature, int topK, float topP) {
  std::mt19937 rng(42);
  std::vector<float> logits(kVocabulary);
  for (float& logit : logits) {
    logit = static_cast<float>(rng()) * 0x1p-28F - 8.0F;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        session::sampleNext(logits.data(), logits.size(), temperature, topK, topP, rng));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

BENCHMARK_CAPTURE(sampleOnce, greedy, 0.0F, 0, 1.0F)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(sampleOnce, topK40, 0.8F, 40, 1.0F)->Unit(benchmark::kMicrosecond);

// As a model gives them: a few stand out of a wide bulk.
std::vector<float> peakedLogits() {
  std::mt19937_64 random(42);
  std::normal_distribution<float> bulk(0, 2);
  std::vector<float> logits(kVocabulary);
  for (float& logit : logits) {
    logit = bulk(random);
  }
  for (size_t i = 0; i < 20; ++i) {
    logits[random() % kVocabulary] += 10;
  }
  return logits;
}

void chooseOnce(benchmark::State& state, const engine::SamplerSettings& settings) {
  const std::vector<float> logits = peakedLogits();
  engine::Sampler sampler(42);
  for (int32_t id = 0; id < 2000; ++id) {
    sampler.accept(id * 7);
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(sampler.next(logits, settings));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void engineChoice(benchmark::State& state, float temperature, int32_t topK, float topP,
                  float minP) {
  chooseOnce(state, {.temperature = temperature, .topK = topK, .topP = topP, .minP = minP});
}

void enginePenalties(benchmark::State& state) {
  chooseOnce(state, {.temperature = 1,
                     .topK = 20,
                     .topP = 0.95F,
                     .presencePenalty = 1.5F,
                     .repetitionPenalty = 1.1F});
}

void engineMask(benchmark::State& state) {
  const engine::TokenMask mask(kVocabulary);
  chooseOnce(state, {.temperature = 1, .topK = 20, .topP = 0.95F, .mask = &mask});
}

BENCHMARK_CAPTURE(engineChoice, greedy, 0.0F, 0, 1.0F, 0.0F)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(engineChoice, topK20, 1.0F, 20, 1.0F, 0.0F)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(engineChoice, topK20TopP, 1.0F, 20, 0.95F, 0.0F)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(engineChoice, topP, 1.0F, 0, 0.95F, 0.0F)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(engineChoice, minP, 1.0F, 0, 1.0F, 0.05F)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(engineChoice, everyToken, 1.0F, 0, 1.0F, 0.0F)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(engineChoice, hot, 100.0F, 0, 0.9F, 0.0F)->Unit(benchmark::kMicrosecond);
BENCHMARK(enginePenalties)->Unit(benchmark::kMicrosecond);
BENCHMARK(engineMask)->Unit(benchmark::kMicrosecond);

}  // namespace
