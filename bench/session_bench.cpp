// What a host waits for besides tokens: opening a model, and starting a conversation anew. The
// models are small: neither depends on the size of the weights.
#include <benchmark/benchmark.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "qwen35/forward.h"
#include "session/session.h"
#include "tests/support/opened_model.h"
#include "tests/support/synthetic_vocabulary.h"

namespace {

constexpr uint64_t kFullVocabulary = 248320;

// With a vocabulary and merges of full size.
const kel::test::ModelFile& fullVocabulary() {
  static const kel::test::ModelFile file(
      {.vocab = kFullVocabulary, .tokenizer = kel::test::syntheticVocabulary(kFullVocabulary)});
  return file;
}

const kel::test::ModelFile& smallVocabulary() {
  static const kel::test::ModelFile file;
  return file;
}

void open(benchmark::State& state, const std::string& path) {
  for (auto _ : state) {
    session::Qwen35Session session;
    char message[128] = "";
    if (!openSession(&session, path.c_str(), message, sizeof message)) {
      throw std::runtime_error(message);
    }
  }
}

void createFullVocabulary(benchmark::State& state) {
  open(state, fullVocabulary().path);
}
BENCHMARK(createFullVocabulary)->Unit(benchmark::kMillisecond);

// All but the tokenizer: one of 300 tokens takes no time.
void createWithoutTokenizer(benchmark::State& state) {
  open(state, smallVocabulary().path);
}
BENCHMARK(createWithoutTokenizer)->Unit(benchmark::kMillisecond);

void resetAfter100Tokens(benchmark::State& state) {
  constexpr size_t kTokens = 100;
  kel::test::Handle handle(smallVocabulary().path, 8192);
  const std::vector<float> embeddings(kTokens * handle.model.nEmbd, 0.5f);
  qwen35::Context context(handle.model, {.maxTokens = kTokens});
  for (auto _ : state) {
    forward(context, handle.model,
            {.embeddings = embeddings.data(),
             .count = kTokens,
             .arithmetic = qwen35::Arithmetic::Batch});
    const auto start = std::chrono::steady_clock::now();
    handle.reset();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(took.count());
  }
}
BENCHMARK(resetAfter100Tokens)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
