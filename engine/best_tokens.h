// The best of many logits, without sorting them all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace engine {

struct RankedToken {
  float logit;
  int32_t id;
};

// Of equal logits the lower ids are the better ones.
inline bool isBetter(const RankedToken& a, const RankedToken& b) {
  return a.logit != b.logit ? a.logit > b.logit : a.id < b.id;
}

// What there is when there is nothing to choose from.
constexpr int32_t kNoToken = -1;

// The best token, or kNoToken: minus infinity and NaNs are no candidates.
int32_t bestToken(std::span<const float> logits);

// Fills out with the `count` best tokens, in no particular order: fewer where there are fewer
// candidates.
void selectBest(std::span<const float> logits, size_t count, std::vector<RankedToken>& out);

}  // namespace engine
