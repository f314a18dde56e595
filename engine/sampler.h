// The choice of the next token from the logits of a position.
#pragma once

#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "engine/best_tokens.h"
#include "engine/sampler_settings.h"
#include "engine/token_counts.h"

namespace engine {

// Same seed, same settings, same logits: same tokens, on every machine. A choice takes these steps,
// in single precision where nothing else is said, every operation rounded:
//
// 1. The bias of a token is added to its logit.
// 2. Penalties. Repetition: the logit of a token that occurs in the window over prompt and reply is
//    divided by the penalty if it is above 0, else multiplied. Then, of a token that the reply
//    holds n times: logit - (frequency * n + presence).
// 3. Tokens that the mask bans, minus infinity and NaNs are out. At temperature 0, or among 1, the
//    best one is the choice.
// 4. Temperature: weight = exp((logit - best logit) / temperature), by the exponential of
//    qwen35/elementwise.h. For sums it is cut to a whole multiple of 2^-44, so that sums are
//    exact and their order decides nothing.
// 5. Top-k: the k best stay.
// 6. Top-p: of them the first, best ones down, whose sum reaches top-p times the sum of all, in
//    double precision and rounded up.
// 7. Min-p: of them those whose weight is at least min-p (the best one's is 1).
// 8. Of the numbers that the 64-bit Mersenne Twister of the C++ standard (std::mt19937_64) gives,
//    the upper 53 bits of the next one are a fraction; the token is the one where the sum of the
//    weights that are left, by rising id, exceeds that fraction of their total.
//
// The better token is the one with the greater logit after step 2, of equals the lower id. One
// thread at a time.
class Sampler {
 public:
  explicit Sampler(uint64_t seed) : random(seed) {}

  void seed(uint64_t seed) { random.seed(seed); }

  // What penalties count. A reply begins after the tokens of its prompt, which follow all those
  // before; accept adds a token to it, whether next chose it or the caller. forget empties prompt
  // and reply.
  void forget();
  void beginReply(std::span<const int32_t> prompt);
  void accept(int32_t id);

  // Index into logits, of which there are fewer than 2^20, or kNoToken where every one is minus
  // infinity, a NaN, or that of a banned token. Greedy choices draw no
  // random number, all others one. Settings outside their ranges do no harm but have no defined
  // effect; ids of biases and of former tokens that logits lack have none.
  int32_t next(std::span<const float> logits, const SamplerSettings& settings);

 private:
  std::span<const float> adjusted(std::span<const float> logits, const SamplerSettings& settings);
  void addBiases(const SamplerSettings& settings);
  void penaliseRepetition(const SamplerSettings& settings);
  void penaliseReply(const SamplerSettings& settings);
  void applyMask(const TokenMask& mask);

  void collect(std::span<const float> logits, int32_t topK);
  void weigh(float best, float temperature);
  void keepShare(float topP);
  RankedToken worstOfShare(uint64_t share, uint64_t before);
  template <typename Keeps>
  void keepIf(const Keeps& keeps);
  int32_t draw();

  struct Weighed {
    RankedToken token;
    uint64_t weight;
  };

  std::mt19937_64 random;

  std::vector<int32_t> history;  // prompts and replies
  size_t replyStart = 0;         // in history
  TokenCounts recent;            // of the window for repetitions
  TokenCounts replied;           // of the reply

  // Scratch of one choice.
  std::vector<float> scores;            // logits after step 2
  std::vector<RankedToken> candidates;  // by rising id
  std::vector<float> exponents;         // of candidates: (logit - best logit) / temperature
  std::vector<float> weights;           // and their exponentials
  std::vector<Weighed> crossing;        // those among which the share is reached
};

}  // namespace engine
