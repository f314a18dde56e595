#include "engine/best_tokens.h"

#include <algorithm>
#include <limits>

namespace engine {

namespace {

// count: below tokens.size(), above 0. Returns the logit of the worst that stays.
float keepBest(std::vector<RankedToken>& tokens, size_t count) {
  const auto worst = tokens.begin() + static_cast<std::ptrdiff_t>(count) - 1;
  std::nth_element(tokens.begin(), worst, tokens.end(), isBetter);
  tokens.resize(count);
  return tokens.back().logit;
}

}  // namespace

void selectBest(std::span<const float> logits, size_t count, std::vector<RankedToken>& out) {
  out.clear();
  if (count == 0) {
    return;
  }
  // Tokens gather until they are twice as many as asked for; the worse half then goes and sets the
  // mark. Of usual logits all but a few stay below it.
  constexpr size_t kLeastRoom = 64;
  const size_t room = 2 * std::min(count, logits.size()) + kLeastRoom;
  float mark = -std::numeric_limits<float>::infinity();
  for (size_t i = 0; i < logits.size(); ++i) {
    // An equal of the mark comes after `count` tokens that are better by their ids.
    if (!(logits[i] > mark)) {
      continue;
    }
    out.push_back({logits[i], static_cast<int32_t>(i)});
    if (out.size() == room) {
      mark = keepBest(out, count);
    }
  }
  if (out.size() > count) {
    keepBest(out, count);
  }
}

}  // namespace engine
