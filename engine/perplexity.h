// How well a model foretells a text, and how far two models are apart: sums over the predictions of
// tokens. Double precision, natural logarithms; logits are those of engine/log_probabilities.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace engine {

// Mean of finite values, and how uncertain it is. West, "Updating Mean and Variance Estimates"
// (1979).
class RunningMean {
 public:
  void add(double value);

  uint64_t count() const { return n; }
  double mean() const { return average; }  // 0 of none
  // Of the mean, from the spread of the values, which count as independent; 0 below two values.
  double standardError() const;

 private:
  uint64_t n = 0;
  double average = 0;
  double squares = 0;  // sum of the squared distances from the mean
};

struct Perplexity {
  double value;
  double standardError;  // to first order in that of the mean
};

// exp of the mean of negative log-likelihoods.
Perplexity perplexityOf(const RunningMean& negativeLogLikelihoods);

// -log of the probability that logits give to the token that does follow.
double negativeLogLikelihood(std::span<const float> logits, int32_t next);

// A part of a text that is fed into an empty context.
struct TextWindow {
  size_t first;        // token of the text
  size_t length;       // tokens
  size_t firstScored;  // token of the text: this one and those after it count
};

// Covers a text with windows of `length` tokens (the last one may be shorter), each `stride` tokens
// after the last. Every token counts once, in the first window that holds it, except those that
// begin a window, of which nothing comes before. length: at least 2; stride: from 1 to length, of
// which a smaller one gives more context before the tokens that count.
std::vector<TextWindow> textWindows(size_t tokens, size_t length, size_t stride);

// Kullback-Leibler divergence of the distribution of `other` from that of `reference`: sum of p *
// log(p / q), p of reference and q of other, by rising id. As many logits in both. Infinite where q
// is 0 and p is not.
double klDivergence(std::span<const float> reference, std::span<const float> other);

// Whether the best token of both is the same one, of equals the lowest.
bool haveSameBest(std::span<const float> reference, std::span<const float> other);

// How far a model, such as a smaller storage of the same weights, is from a reference.
struct ModelDistance {
  RunningMean divergence;
  double greatestDivergence = 0;
  RunningMean sameBest;  // 1 for each position where the best tokens agree, else 0

  void add(std::span<const float> reference, std::span<const float> other);
  void add(double divergenceOfOne, bool isSameBest);
};

}  // namespace engine
