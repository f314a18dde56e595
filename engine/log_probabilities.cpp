#include "engine/log_probabilities.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "engine/best_tokens.h"

namespace engine {

namespace {

constexpr double kNever = -std::numeric_limits<double>::infinity();

double highestOf(std::span<const float> logits) {
  float highest = -std::numeric_limits<float>::infinity();
  for (const float logit : logits) {
    highest = logit > highest ? logit : highest;
  }
  return highest;
}

}  // namespace

LogSoftmax::LogSoftmax(std::span<const float> logits) : highest(highestOf(logits)), logSum(0) {
  double sum = 0;
  for (const float logit : logits) {
    if (static_cast<double>(logit) > kNever) {
      sum += std::exp(static_cast<double>(logit) - highest);
    }
  }
  logSum = std::log(sum);
}

double LogSoftmax::operator()(float logit) const {
  const auto exact = static_cast<double>(logit);
  // The difference first: next to great logits the logarithm would be rounded away.
  return exact > kNever ? (exact - highest) - logSum : kNever;
}

double logProbability(std::span<const float> logits, int32_t id) {
  return LogSoftmax(logits)(logits[static_cast<size_t>(id)]);
}

LogProbabilities logProbabilities(std::span<const float> logits, int32_t chosen, size_t count) {
  const LogSoftmax distribution(logits);
  std::vector<RankedToken> tokens;
  selectBest(logits, count, tokens);
  std::sort(tokens.begin(), tokens.end(), isBetter);

  LogProbabilities result{{chosen, distribution(logits[static_cast<size_t>(chosen)])}, {}};
  result.best.reserve(tokens.size());
  for (const RankedToken& token : tokens) {
    result.best.push_back({token.id, distribution(token.logit)});
  }
  return result;
}

}  // namespace engine
