// Speed of the whole model: milliseconds per token and where they go, and prompts of several
// lengths.
//
//   model_bench [hidden feed-forward vocabulary [tokens]]
//
// Writes a synthetic model of that shape (default: 2560 9216 248320, about 2.4 GB) into a temporary
// folder, random Q4_K blocks throughout, runs tokens through it (default 16) and removes it. Prints
// medians, and the weights streamed per second beside a plain read of the same mapped bytes. The
// weights carry no meaning: speed does not depend on their values.

#include <omp.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "qwen35/elementwise.h"
#include "qwen35/forward.h"
#include "qwen35/full_attention.h"
#include "qwen35/linear_attention.h"
#include "qwen35/simd/dispatch.h"
#include "tests/support/opened_model.h"

namespace {

using Clock = std::chrono::steady_clock;
using kel::test::Handle;

enum Part { kLinearAttention, kFullAttention, kFeedForward, kHead, kParts };
constexpr const char* kPartNames[kParts] = {"linear attention", "full attention", "feed-forward",
                                            "output head"};
using PartTimes = std::array<double, kParts>;

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

template <typename Action>
void addTime(double& total, const Action& action) {
  const Clock::time_point start = Clock::now();
  action();
  total += millisecondsSince(start);
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

// A pass taken apart, so that every kind of block can be timed by itself.
PartTimes timeParts(qwen35::Context& context, qwen35::Model& m, const std::vector<float>& embedding,
                    size_t pos, std::vector<float>& logits) {
  PartTimes times{};
  std::vector<float> x = embedding;
  std::vector<float> y(m.nEmbd);
  std::vector<float> normed(m.nEmbd);
  const qwen35::Sequence sequence[] = {{.model = &m, .pos = pos}};
  const auto timed = [&](Part part, const auto& body) {
    addTime(times[part], [&] {
      context.team().run([&](qwen35::Team::Member& member) {
        body(qwen35::Work{context, member, m, 1, qwen35::Arithmetic::SingleToken, sequence});
      });
    });
  };
  const auto addToX = [&] {
    for (size_t i = 0; i < x.size(); ++i) {
      x[i] += y[i];
    }
  };
  for (size_t l = 0; l < m.nLayer; ++l) {
    qwen35::Layer& layer = m.layers[l];
    const qwen35::ResidualSum input{x.data(), nullptr, nullptr};
    if (layer.isLinear) {
      timed(kLinearAttention,
            [&](const qwen35::Work& w) { linearAttention(w, layer, l, input, y.data()); });
    } else {
      timed(kFullAttention, [&](const qwen35::Work& w) {
        w.member.once([&] { computeAngles(w, 0); });
        fullAttention(w, layer, l, input, y.data());
      });
      ++layer.pos;
    }
    addToX();
    qwen35::rmsNorm(x.data(), qwen35::floats(layer.postAttnNorm), normed.data(), m.nEmbd,
                    m.normEps);
    timed(kFeedForward,
          [&](const qwen35::Work& w) { feedForward(w, layer, normed.data(), y.data()); });
    addToX();
  }
  qwen35::rmsNorm(x.data(), qwen35::floats(m.outputNorm), x.data(), m.nEmbd, m.normEps);
  timed(kHead, [&](const qwen35::Work& w) { head(w, x.data(), logits.data()); });
  return times;
}

// Milliseconds of the best of three reads of the weight section by the OpenMP team.
double readMilliseconds(const kel::ZYM2Reader& reader) {
  const uint8_t* data = reader.sectionData(kel::zym2::SectionType::WeightData);
  const size_t words = reader.sectionSize(kel::zym2::SectionType::WeightData) / sizeof(uint64_t);
  double best = 1e300;
  for (int pass = 0; pass < 3; ++pass) {
    uint64_t sum = 0;
    double took = 0;
    addTime(took, [&] {
#pragma omp parallel for reduction(+ : sum) schedule(static)
      for (size_t i = 0; i < words; ++i) {
        uint64_t word;
        std::memcpy(&word, data + i * sizeof word, sizeof word);
        sum += word;
      }
    });
    volatile const uint64_t kept = sum;
    (void)kept;
    best = std::min(best, took);
  }
  return best;
}

void run(Handle& handle, size_t tokens) {
  qwen35::Model& m = handle.model;
  std::vector<float> embedding(m.nEmbd);
  std::vector<float> logits(m.nVocab);
  std::vector<double> whole;
  std::array<std::vector<double>, kParts> parts;
  qwen35::Context context(m);
  // Token 0 warms the page cache and the scratch; then whole and taken-apart passes alternate.
  for (size_t pos = 0; pos <= 2 * tokens; ++pos) {
    qwen35::embedRow(m, pos % m.nVocab, embedding.data());
    if (pos % 2 == 0) {
      double took = 0;
      addTime(took, [&] {
        forward(context, m, {.embeddings = embedding.data(), .pos = pos, .logits = logits.data()});
      });
      if (pos > 0) {
        whole.push_back(took);
      }
      continue;
    }
    const PartTimes times = timeParts(context, m, embedding, pos, logits);
    for (size_t part = 0; part < kParts; ++part) {
      parts[part].push_back(times[part]);
    }
  }

  const uint64_t bytes = handle.loader.reader.sectionSize(kel::zym2::SectionType::WeightData);
  const double perToken = median(whole);
  const double read = readMilliseconds(handle.loader.reader);
  std::printf("token            %9.2f ms (%.2f to %.2f over %zu)\n", perToken,
              *std::min_element(whole.begin(), whole.end()),
              *std::max_element(whole.begin(), whole.end()), whole.size());
  for (size_t part = 0; part < kParts; ++part) {
    std::printf("%-16s %9.2f ms\n", kPartNames[part], median(parts[part]));
  }
  std::printf("weights          %9.2f GB/s; plain read %.2f GB/s; ratio %.2f\n",
              static_cast<double>(bytes) / perToken / 1e6, static_cast<double>(bytes) / read / 1e6,
              read / perToken);
}

// Tokens/s of prompts of several lengths, each with the logits of its last token, as a turn of a
// chat has them.
void runBatches(Handle& handle) {
  constexpr size_t kRounds = 3;
  constexpr size_t kCounts[] = {1, 2, 4, 8, 16, 32, 64, qwen35::kBatchTokens};
  qwen35::Model& m = handle.model;
  qwen35::Context context(m, {.maxTokens = qwen35::kBatchTokens});
  std::vector<float> embeddings(qwen35::kBatchTokens * m.nEmbd);
  std::vector<float> logits(m.nVocab);
  for (size_t token = 0; token < qwen35::kBatchTokens; ++token) {
    qwen35::embedRow(m, token % m.nVocab, embeddings.data() + token * m.nEmbd);
  }
  std::array<std::vector<double>, std::size(kCounts)> took;
  for (size_t round = 0; round <= kRounds; ++round) {
    for (size_t i = 0; i < std::size(kCounts); ++i) {
      resetModel(m);
      double once = 0;
      addTime(once, [&] {
        forward(context, m,
                {.embeddings = embeddings.data(),
                 .count = kCounts[i],
                 .arithmetic = qwen35::Arithmetic::Batch,
                 .logits = logits.data()});
      });
      if (round > 0) {
        took[i].push_back(once);
      }
    }
  }
  const double longest =
      static_cast<double>(kCounts[std::size(kCounts) - 1]) / median(took[std::size(kCounts) - 1]);
  for (size_t i = 0; i < std::size(kCounts); ++i) {
    const double perMillisecond = static_cast<double>(kCounts[i]) / median(took[i]);
    std::printf("prompt of %3zu    %9.2f tokens/s; of a whole batch's %.2f\n", kCounts[i],
                1000.0 * perMillisecond, perMillisecond / longest);
  }
}

uint64_t argument(int argc, char** argv, int index, uint64_t otherwise) {
  return argc > index ? std::strtoull(argv[index], nullptr, 10) : otherwise;
}

}  // namespace

int main(int argc, char** argv) {
  const size_t tokens = argument(argc, argv, 4, 16);
  const kel::test::RandomModelSpec spec{.hidden = argument(argc, argv, 1, 2560),
                                        .ffn = argument(argc, argv, 2, 9216),
                                        .vocab = argument(argc, argv, 3, 248320),
                                        .types = {kel::QuantType::Q4_K}};
  const kel::test::ModelFile file(spec);
  Handle handle(file.path, std::max<uint64_t>(2 * tokens + 1, qwen35::kBatchTokens));
  std::printf(
      "hidden %llu, feed-forward %llu, vocabulary %llu, Q4_K; kernels %s, %d threads\n",
      static_cast<unsigned long long>(spec.hidden), static_cast<unsigned long long>(spec.ffn),
      static_cast<unsigned long long>(spec.vocab), qwen35::kernels().name, omp_get_max_threads());
  run(handle, tokens);
  runBatches(handle);
  return 0;
}
