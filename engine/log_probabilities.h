// Logarithms of probabilities, in double precision. Those of a model are the log-softmax of its
// logits as they are: no temperature, bias, penalty or cut has a part in them.
//
// Natural logarithms. A NaN counts as minus infinity; no logit is plus infinity. The last digits
// are those of the C library's exp and log. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace engine {

// The distribution that logits stand for. The sum of their exponentials, relative to the greatest,
// is formed by rising id.
class LogSoftmax {
 public:
  explicit LogSoftmax(std::span<const float> logits);

  // Of the token of this logit, one of those given. Minus infinity for a logit that is.
  double operator()(float logit) const;

 private:
  double highest;
  double logSum;
};

// Of one token, an index into logits.
double logProbability(std::span<const float> logits, int32_t id);

struct TokenLogProbability {
  int32_t id;
  double logProbability;
};

struct LogProbabilities {
  TokenLogProbability chosen;
  std::vector<TokenLogProbability> best;  // best first, equals by rising id
};

// Of the token that was chosen and of the `count` best ones; fewer where fewer logits are finite.
LogProbabilities logProbabilities(std::span<const float> logits, int32_t chosen, size_t count);

}  // namespace engine
