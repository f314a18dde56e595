#include "engine/best_tokens.h"

#include <algorithm>
#include <limits>

namespace engine {

namespace {

constexpr float kNever = -std::numeric_limits<float>::infinity();

// count: below tokens.size(), above 0. Returns the logit of the worst that stays.
float keepBest(std::vector<RankedToken>& tokens, size_t count) {
  const auto worst = tokens.begin() + static_cast<std::ptrdiff_t>(count) - 1;
  std::nth_element(tokens.begin(), worst, tokens.end(), isBetter);
  tokens.resize(count);
  return tokens.back().logit;
}

}  // namespace

int32_t bestToken(std::span<const float> logits) {
  float best = kNever;
  int32_t id = kNoToken;
  for (size_t i = 0; i < logits.size(); ++i) {
    if (logits[i] > best) {
      best = logits[i];
      id = static_cast<int32_t>(i);
    }
  }
  return id;
}

void selectBest(std::span<const float> logits, size_t count, std::vector<RankedToken>& out) {
  out.clear();
  if (count == 0) {
    return;
  }
  // Tokens gather until they are twice as many as asked for; the worse half then goes and sets the
  // mark. Of usual logits all but a few stay below it.
  constexpr size_t kLeastRoom = 64;
  const size_t room = 2 * std::min(count, logits.size()) + kLeastRoom;
  float mark = kNever;
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
