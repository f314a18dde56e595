// Encode, decode and load on vocabularies of 250,000 tokens and 250,000 merges. One thread.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>

#include "tests/tokenizer/bpe_trainer.h"
#include "tests/tokenizer/sample_text.h"
#include "tokenizer/tokenizer.h"
#include "tokenizer/whitespace.h"

namespace {

constexpr size_t kVocabulary = 250'000;
constexpr size_t kTrainedMerges = 20'000;

std::string randomWord(std::mt19937& rng, size_t minSize, size_t maxSize) {
  std::string word(minSize + rng() % (maxSize - minSize + 1), ' ');
  for (char& c : word) {
    c = static_cast<char>('a' + rng() % 26);
  }
  return word;
}

// Trained on English, then filled up with rules and tokens that hardly apply, so that the tables
// have their real size while the merging is that of a real vocabulary.
kel::TokenizerData fullVocabulary(std::string_view marker) {
  const std::string text = kel::testing::generatedEnglish(3'000'000, 1);
  kel::TokenizerData data = kel::testing::trainBpe(text, marker, kTrainedMerges);
  std::mt19937 rng(42);
  while (data.merges.size() < kVocabulary) {
    data.merges.push_back(randomWord(rng, 2, 6) + " " + randomWord(rng, 2, 6));
  }
  while (data.tokens.size() < kVocabulary) {
    data.tokens.push_back(randomWord(rng, 4, 12));
    data.tokenTypes.push_back(1);
  }
  return data;
}

const kel::TokenizerData& vocabulary(std::string_view marker) {
  static const kel::TokenizerData byteLevel = fullVocabulary(kel::kByteLevelSpace);
  static const kel::TokenizerData escaped = fullVocabulary(kel::kEscapedSpace);
  return marker == kel::kByteLevelSpace ? byteLevel : escaped;
}

kel::Tokenizer tokenizerOf(std::string_view marker) {
  kel::Tokenizer tokenizer;
  if (!tokenizer.load(vocabulary(marker)).ok()) {
    std::abort();
  }
  return tokenizer;
}

void encodeText(benchmark::State& state, std::string_view marker, const std::string& text) {
  const kel::Tokenizer tokenizer = tokenizerOf(marker);
  std::vector<int32_t> ids;
  for (auto _ : state) {
    if (!tokenizer.encode(text, ids, false).ok()) {
      std::abort();
    }
    benchmark::DoNotOptimize(ids.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["ids"] = static_cast<double>(ids.size());
}

void encodeEnglishByteLevel(benchmark::State& state) {
  encodeText(state, kel::kByteLevelSpace, kel::testing::generatedEnglish(1'000'000, 7));
}
BENCHMARK(encodeEnglishByteLevel)->Unit(benchmark::kMillisecond);

void encodeLongLineEscaped(benchmark::State& state) {
  encodeText(state, kel::kEscapedSpace, kel::testing::generatedLine(100'000, 7));
}
BENCHMARK(encodeLongLineEscaped)->Unit(benchmark::kMillisecond);

// Every byte starts a special token that then does not match.
void encodeSpecialTokenStarts(benchmark::State& state) {
  kel::TokenizerData data;
  data.tokens = {"<"};
  data.tokenTypes = {1};
  for (int i = 0; i < 30; ++i) {
    data.tokens.push_back("<|reserved_" + std::to_string(i) + "|>");
    data.tokenTypes.push_back(3);
  }
  kel::Tokenizer tokenizer;
  if (!tokenizer.load(std::move(data)).ok()) {
    std::abort();
  }
  const std::string text(1'000'000, '<');
  std::vector<int32_t> ids;
  for (auto _ : state) {
    if (!tokenizer.encode(text, ids, false).ok()) {
      std::abort();
    }
    benchmark::DoNotOptimize(ids.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(encodeSpecialTokenStarts)->Unit(benchmark::kMillisecond);

void decodeEnglish(benchmark::State& state) {
  const kel::Tokenizer tokenizer = tokenizerOf(kel::kEscapedSpace);
  std::vector<int32_t> ids;
  if (!tokenizer.encode(kel::testing::generatedEnglish(1'000'000, 7), ids, false).ok()) {
    std::abort();
  }
  std::string text;
  for (auto _ : state) {
    if (!tokenizer.decode(ids, text).ok()) {
      std::abort();
    }
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(decodeEnglish)->Unit(benchmark::kMillisecond);

// Loading alone: the copy of the tables and the release of the tokenizer are not timed.
void loadVocabulary(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    {
      kel::TokenizerData data = vocabulary(kel::kByteLevelSpace);
      kel::Tokenizer tokenizer;
      state.ResumeTiming();
      if (!tokenizer.load(std::move(data)).ok()) {
        std::abort();
      }
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
}
BENCHMARK(loadVocabulary)->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace
