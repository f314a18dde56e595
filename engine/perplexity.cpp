#include "engine/perplexity.h"

#include <algorithm>
#include <cmath>

#include "engine/best_tokens.h"
#include "engine/log_probabilities.h"

namespace engine {

void RunningMean::add(double value) {
  ++n;
  const double distance = value - average;
  average += distance / static_cast<double>(n);
  squares += distance * (value - average);
}

double RunningMean::standardError() const {
  if (n < 2) {
    return 0;
  }
  const auto values = static_cast<double>(n);
  return std::sqrt(squares / (values - 1) / values);
}

Perplexity perplexityOf(const RunningMean& negativeLogLikelihoods) {
  const double value = std::exp(negativeLogLikelihoods.mean());
  return {value, value * negativeLogLikelihoods.standardError()};
}

double negativeLogLikelihood(std::span<const float> logits, int32_t next) {
  return -logProbability(logits, next);
}

std::vector<TextWindow> textWindows(size_t tokens, size_t length, size_t stride) {
  std::vector<TextWindow> windows;
  size_t covered = 0;
  for (size_t first = 0; covered < tokens; first += stride) {
    const size_t end = first + std::min(length, tokens - first);
    windows.push_back({first, end - first, std::max(covered, first + 1)});
    covered = end;
  }
  // A single token at the end is foretold by nothing.
  if (!windows.empty() && windows.back().length < 2) {
    windows.pop_back();
  }
  return windows;
}

double klDivergence(std::span<const float> reference, std::span<const float> other) {
  const LogSoftmax logP(reference);
  const LogSoftmax logQ(other);
  double divergence = 0;
  for (size_t id = 0; id < reference.size(); ++id) {
    const double log = logP(reference[id]);
    const double p = std::exp(log);
    if (p > 0) {
      divergence += p * (log - logQ(other[id]));
    }
  }
  return std::max(divergence, 0.0);  // rounding leaves less than 0 of equal distributions
}

bool haveSameBest(std::span<const float> reference, std::span<const float> other) {
  return bestToken(reference) == bestToken(other);
}

void ModelDistance::add(std::span<const float> reference, std::span<const float> other) {
  add(klDivergence(reference, other), haveSameBest(reference, other));
}

void ModelDistance::add(double divergenceOfOne, bool isSameBest) {
  divergence.add(divergenceOfOne);
  greatestDivergence = std::max(greatestDivergence, divergenceOfOne);
  sameBest.add(isSameBest ? 1 : 0);
}

}  // namespace engine
