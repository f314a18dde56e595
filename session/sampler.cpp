#include "session/sampler.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <vector>

namespace session {
namespace {

struct Candidate {
  float score;
  int32_t token;
};

// All tokens by falling score. Equal scores come in the order that std::sort leaves them in; the
// element type, the comparator and the initial order are therefore part of the result.
std::vector<Candidate> rankedCandidates(const float* logits, size_t n, float temperature) {
  const float scale = 1.0F / temperature;
  std::vector<Candidate> candidates;
  candidates.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    const float score = logits[i] * scale;
    // A score that compares with nothing would break the order, and the sort with it.
    const float ordered = std::isnan(score) ? -std::numeric_limits<float>::infinity() : score;
    candidates.push_back({ordered, static_cast<int32_t>(i)});
  }
  std::sort(candidates.begin(), candidates.end(),
            [](const Candidate& a, const Candidate& b) { return a.score > b.score; });
  return candidates;
}

size_t topKCount(size_t n, int topK) {
  return topK < 1 || static_cast<size_t>(topK) > n ? n : static_cast<size_t>(topK);
}

// Weight of a candidate relative to the best one.
double weight(const Candidate& candidate, double max) {
  return std::exp(static_cast<double>(candidate.score) - max);
}

std::span<const Candidate> cutTopP(std::span<const Candidate> range, double max, float topP) {
  if (!(topP > 0.0F && topP < 1.0F)) {
    return range;
  }
  double sum = 0.0;
  for (size_t i = 0; i < range.size(); ++i) {
    sum += weight(range[i], max);
    if (sum >= static_cast<double>(topP)) {
      return range.first(i + 1);
    }
  }
  return range;
}

// Written out rather than left to std::generate_canonical, whose result may differ between
// libraries: the same seed gives the same choices everywhere.
double uniform53(std::mt19937& rng) {
  constexpr double kLargestBelowOne = 0.9999999999999999;
  const auto low = static_cast<double>(rng());
  const auto high = static_cast<double>(rng());
  const double u = (low + high * 4294967296.0) * 5.421010862427522e-20;
  return u >= 1.0 ? kLargestBelowOne : u;
}

int32_t draw(std::span<const Candidate> range, double max, std::mt19937& rng) {
  double mass = 0.0;
  for (const Candidate& candidate : range) {
    mass += weight(candidate, max);
  }
  double rest = uniform53(rng) * mass;
  for (const Candidate& candidate : range) {
    rest -= weight(candidate, max);
    if (rest <= 0.0) {
      return candidate.token;
    }
  }
  return range.back().token;  // rounding left a little over
}

}  // namespace

int32_t largestLogit(const float* logits, size_t n) {
  if (n <= 1 || std::isnan(logits[0])) {
    return 0;  // nothing is greater than a NaN
  }
  // The maximum first, in lanes that the compiler keeps in registers, then where it stands first: a
  // scan that carries the index along takes one element at a time.
  constexpr size_t kLanes = 32;
  float lanes[kLanes];
  std::fill_n(lanes, kLanes, logits[0]);
  const size_t whole = n - n % kLanes;
  for (size_t i = 0; i < whole; i += kLanes) {
    for (size_t lane = 0; lane < kLanes; ++lane) {
      lanes[lane] = logits[i + lane] > lanes[lane] ? logits[i + lane] : lanes[lane];
    }
  }
  for (size_t i = whole; i < n; ++i) {
    lanes[0] = logits[i] > lanes[0] ? logits[i] : lanes[0];
  }
  const float largest = *std::max_element(lanes, lanes + kLanes);
  return static_cast<int32_t>(std::find(logits, logits + n, largest) - logits);
}

int32_t sampleNext(const float* logits, size_t n, float temperature, int topK, float topP,
                   std::mt19937& rng) {
  if (n == 0) {
    return 0;
  }
  if (temperature <= 0.0F || topK == 1) {
    return largestLogit(logits, n);
  }

  const std::vector<Candidate> candidates = rankedCandidates(logits, n, temperature);
  const auto best = std::span(candidates).first(topKCount(n, topK));
  const auto max = static_cast<double>(best.front().score);
  return draw(cutTopP(best, max, topP), max, rng);
}

}  // namespace session
