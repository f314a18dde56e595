// The choice of the next token from one vector of logits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace session {

// Index of the largest of n logits, the lowest of equals; 0 for at most one. Compares strictly from
// index 0 on: a NaN is passed over, except that nothing is greater than one at index 0.
int32_t largestLogit(const float* logits, size_t n);

// Token id chosen from n logits (n is the vocabulary size); 0 when n is 0.
//
// temperature <= 0 or topK == 1 is greedy: the lowest index of the largest logit. It draws no
// random number and allocates nothing.
//
// Otherwise one of the topK best tokens (of all when topK is below 1 or above n) is drawn with
// probability proportional to exp(logit / temperature): all scores are sorted, and exactly two
// outputs of rng make one 53-bit uniform number, whatever the size of the range.
//
// Deliberate: topP is compared with a sum of weights relative to the best one, which is not divided
// by their total. The best token alone weighs 1, so every topP strictly between 0 and 1 leaves only
// that token; others leave the topK range as it is. Hosts in use rely on these choices.
//
// A score that is not a number counts as minus infinity. The caller owns rng; one thread at a time.
int32_t sampleNext(const float* logits, size_t n, float temperature, int topK, float topP,
                   std::mt19937& rng);

}  // namespace session
