#include "engine/sampler.h"

#include <algorithm>
#include <cstddef>

#include "qwen35/elementwise.h"

namespace engine {

namespace {

// The first of equals.
int32_t best(std::span<const float> logits) {
  return static_cast<int32_t>(std::max_element(logits.begin(), logits.end()) - logits.begin());
}

}  // namespace

// As many of the best candidates in order as the draw needs: those of the top k, or all.
void Sampler::rank(std::span<const float> logits, const SamplerSettings& settings) {
  candidates.resize(logits.size());
  for (size_t i = 0; i < logits.size(); ++i) {
    candidates[i] = {logits[i], static_cast<int32_t>(i)};
  }
  const auto isBetter = [](const Candidate& a, const Candidate& b) {
    return a.logit != b.logit ? a.logit > b.logit : a.id < b.id;
  };
  const bool takesAll =
      settings.topK < 1 || static_cast<size_t>(settings.topK) >= candidates.size();
  if (takesAll) {
    std::sort(candidates.begin(), candidates.end(), isBetter);
    return;
  }
  const auto end = candidates.begin() + settings.topK;
  std::partial_sort(candidates.begin(), end, candidates.end(), isBetter);
  candidates.erase(end, candidates.end());
}

int32_t Sampler::next(std::span<const float> logits, const SamplerSettings& settings) {
  if (settings.temperature <= 0 || settings.topK == 1) {
    return best(logits);
  }
  rank(logits, settings);
  const float highest = candidates.front().logit;
  double total = 0;
  sums.clear();
  for (const Candidate& candidate : candidates) {
    total += static_cast<double>(
        qwen35::exponential((candidate.logit - highest) / settings.temperature));
    sums.push_back(total);
  }
  const double share = settings.topP < 1 ? static_cast<double>(settings.topP) * total : total;
  // The first whose sum reaches the share is the last to be drawn.
  const auto last = std::lower_bound(sums.begin(), sums.end(), share);
  const double kept = last == sums.end() ? total : *last;
  constexpr double kUnit = 0x1p-53;
  const double drawn = static_cast<double>(random() >> 11) * kUnit * kept;
  const auto chosen = std::upper_bound(sums.begin(), sums.end(), drawn);
  const size_t index =
      std::min<size_t>(static_cast<size_t>(chosen - sums.begin()), candidates.size() - 1);
  return candidates[index].id;
}

}  // namespace engine
