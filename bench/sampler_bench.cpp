// One choice from 250,000 logits. One thread.
#include <benchmark/benchmark.h>

#include <vector>

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

}  // namespace
