#include "engine/sampler.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>

#include "qwen35/simd/dispatch.h"

namespace engine {

namespace {

constexpr float kNever = -std::numeric_limits<float>::infinity();

// A weight, from 0 to 1, in units of 2^-44: what 2^20 of them add up to fits.
uint64_t unitsOf(float weight) {
  constexpr double kUnits = 0x1p44;
  return weight > 0 ? static_cast<uint64_t>(static_cast<double>(weight) * kUnits) : 0;
}

// Exponents in classes of equal width, from the best ones down. A worse token is never in a better
// class; past the last one weights are 0.
constexpr size_t kClasses = 1024;

size_t classOf(float exponent) {
  constexpr float kPerUnit = 32;
  const float depth = exponent * -kPerUnit;
  return depth < static_cast<float>(kClasses - 1) ? static_cast<size_t>(depth) : kClasses - 1;
}

}  // namespace

void Sampler::forget() {
  history.clear();
  replyStart = 0;
  recent.clear();
  replied.clear();
}

void Sampler::beginReply(std::span<const int32_t> prompt) {
  history.insert(history.end(), prompt.begin(), prompt.end());
  replyStart = history.size();
}

void Sampler::accept(int32_t id) {
  history.push_back(id);
}

void Sampler::addBiases(const SamplerSettings& settings) {
  for (const auto& [id, bias] : settings.logitBias) {
    if (id >= 0 && static_cast<size_t>(id) < scores.size()) {
      scores[static_cast<size_t>(id)] += bias;
    }
  }
}

void Sampler::penaliseRepetition(const SamplerSettings& settings) {
  const auto window = static_cast<size_t>(std::max(settings.repetitionWindow, 0));
  const bool countsAll = window == 0 || window > history.size();
  recent.moveTo(history, countsAll ? 0 : history.size() - window, history.size());
  for (const TokenCounts::Entry& entry : recent.entries()) {
    if (entry.id >= 0 && static_cast<size_t>(entry.id) < scores.size()) {
      float& score = scores[static_cast<size_t>(entry.id)];
      score = score > 0 ? score / settings.repetitionPenalty : score * settings.repetitionPenalty;
    }
  }
}

void Sampler::penaliseReply(const SamplerSettings& settings) {
  replied.moveTo(history, replyStart, history.size());
  for (const TokenCounts::Entry& entry : replied.entries()) {
    if (entry.id >= 0 && static_cast<size_t>(entry.id) < scores.size()) {
      scores[static_cast<size_t>(entry.id)] -=
          settings.frequencyPenalty * static_cast<float>(entry.count) + settings.presencePenalty;
    }
  }
}

void Sampler::applyMask(const TokenMask& mask) {
  for (size_t id = 0; id < scores.size(); ++id) {
    if (!mask.allows(id)) {
      scores[id] = kNever;
    }
  }
}

std::span<const float> Sampler::adjusted(std::span<const float> logits,
                                         const SamplerSettings& settings) {
  const bool penalisesRepetition = settings.repetitionPenalty != 1;
  const bool penalisesReply = settings.presencePenalty != 0 || settings.frequencyPenalty != 0;
  if (settings.logitBias.empty() && !penalisesRepetition && !penalisesReply &&
      settings.mask == nullptr) {
    return logits;
  }
  scores.assign(logits.begin(), logits.end());
  addBiases(settings);
  if (penalisesRepetition) {
    penaliseRepetition(settings);
  }
  if (penalisesReply) {
    penaliseReply(settings);
  }
  if (settings.mask != nullptr) {
    applyMask(*settings.mask);
  }
  return scores;
}

void Sampler::collect(std::span<const float> logits, int32_t topK) {
  if (topK >= 1 && static_cast<size_t>(topK) < logits.size()) {
    selectBest(logits, static_cast<size_t>(topK), candidates);
    std::sort(candidates.begin(), candidates.end(),
              [](const RankedToken& a, const RankedToken& b) { return a.id < b.id; });
    return;
  }
  candidates.clear();
  for (size_t i = 0; i < logits.size(); ++i) {
    if (logits[i] > kNever) {
      candidates.push_back({logits[i], static_cast<int32_t>(i)});
    }
  }
}

void Sampler::weigh(float best, float temperature) {
  exponents.resize(candidates.size());
  weights.resize(candidates.size());
  for (size_t i = 0; i < candidates.size(); ++i) {
    const float logit = candidates[i].logit;
    exponents[i] = logit == best ? 0 : (logit - best) / temperature;  // an infinite best one, too
  }
  qwen35::kernels().exponentials(exponents.data(), 0, weights.data(), exponents.size());
}

template <typename Keeps>
void Sampler::keepIf(const Keeps& keeps) {
  size_t kept = 0;
  for (size_t i = 0; i < candidates.size(); ++i) {
    if (keeps(i)) {
      candidates[kept] = candidates[i];
      weights[kept] = weights[i];
      ++kept;
    }
  }
  candidates.resize(kept);
  weights.resize(kept);
}

// The token of `crossing` where the sum of those before it, best ones down from `before`, reaches
// the share with it.
RankedToken Sampler::worstOfShare(uint64_t share, uint64_t before) {
  auto first = crossing.begin();
  auto end = crossing.end();
  while (end - first > 1) {
    const auto middle = first + (end - first) / 2;
    std::nth_element(first, middle, end,
                     [](const Weighed& a, const Weighed& b) { return isBetter(a.token, b.token); });
    uint64_t sum = before;
    for (auto at = first; at != middle; ++at) {
      sum += at->weight;
    }
    if (sum >= share) {
      end = middle;
    } else {
      before = sum;
      first = middle;
    }
  }
  return first->token;
}

void Sampler::keepShare(float topP) {
  std::array<uint64_t, kClasses> sums{};
  uint64_t total = 0;
  for (size_t i = 0; i < candidates.size(); ++i) {
    const uint64_t units = unitsOf(weights[i]);
    sums[classOf(exponents[i])] += units;
    total += units;
  }
  const double product = static_cast<double>(topP) * static_cast<double>(total);
  const auto share = static_cast<uint64_t>(std::max(std::ceil(product), 1.0));

  size_t reaching = 0;
  uint64_t before = 0;
  while (before + sums[reaching] < share) {
    before += sums[reaching];
    ++reaching;
  }
  crossing.clear();
  for (size_t i = 0; i < candidates.size(); ++i) {
    if (classOf(exponents[i]) == reaching) {
      crossing.push_back({candidates[i], unitsOf(weights[i])});
    }
  }
  const RankedToken worst = worstOfShare(share, before);
  keepIf([&](size_t i) { return !isBetter(worst, candidates[i]); });
}

int32_t Sampler::draw() {
  uint64_t total = 0;
  for (const float weight : weights) {
    total += unitsOf(weight);
  }
  constexpr double kUnit = 0x1p-53;
  const double fraction = static_cast<double>(random() >> 11) * kUnit;
  // The product may round up to the total, which no sum exceeds.
  const uint64_t drawn =
      std::min(static_cast<uint64_t>(fraction * static_cast<double>(total)), total - 1);
  uint64_t sum = 0;
  size_t at = 0;
  while ((sum += unitsOf(weights[at])) <= drawn) {
    ++at;
  }
  return candidates[at].id;
}

int32_t Sampler::next(std::span<const float> logits, const SamplerSettings& settings) {
  const std::span<const float> allowed = adjusted(logits, settings);
  const int32_t best = bestToken(allowed);
  if (best == kNoToken || !(settings.temperature > 0) || settings.topK == 1) {
    return best;
  }
  collect(allowed, settings.topK);
  weigh(allowed[static_cast<size_t>(best)], settings.temperature);
  if (settings.topP < 1) {
    keepShare(settings.topP);
  }
  if (settings.minP > 0) {
    const float least = std::min(settings.minP, 1.0F);
    keepIf([&](size_t i) { return weights[i] >= least; });
  }
  return draw();
}

}  // namespace engine
