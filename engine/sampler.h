// The choice of the next token from the logits of a position.
#pragma once

#include <cstdint>
#include <random>
#include <span>
#include <utility>
#include <vector>

namespace engine {

struct SamplerSettings {
  float temperature = 0;  // 0: always the best token, the lowest of equals
  int32_t topK = 0;       // draw among so many best tokens; below 1: among all
  float topP = 1;         // and among the fewest best that have this share of their probability
};

// Same seed, same settings, same logits: same tokens, on every machine. Random numbers are those of
// the 64-bit Mersenne Twister as the C++ standard fixes it (std::mt19937_64), the upper 53 bits of
// an output as a fraction; exponentials are those of qwen35/elementwise.h; sums are formed in
// double from the best token down, equal ones by rising id. One thread at a time.
class Sampler {
 public:
  explicit Sampler(uint64_t seed) : random(seed) {}

  void seed(uint64_t seed) { random.seed(seed); }

  // Index into logits, of which there is at least one and none is NaN. Greedy choices draw no
  // random number, all others one.
  int32_t next(std::span<const float> logits, const SamplerSettings& settings);

 private:
  struct Candidate {
    float logit;
    int32_t id;
  };

  void rank(std::span<const float> logits, const SamplerSettings& settings);

  std::mt19937_64 random;
  std::vector<Candidate> candidates;  // the best ones in front, in order
  std::vector<double> sums;           // of the weights of candidates up to each
};

}  // namespace engine
