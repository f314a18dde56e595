#include "qwen35/full_attention.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "qwen35/diagnostics.h"
#include "qwen35/kernels.h"
#include "qwen35/products.h"
#include "qwen35/simd/dispatch.h"

namespace qwen35 {

namespace {

// Lowest score that the running maximum starts from; finite, so that a row of -infinity scores
// still subtracts to -infinity.
constexpr float kNoScore = -1e30f;

struct Angle {
  float cosine;
  float sine;
};

struct Scratch {
  std::vector<float> xnorm;   // [nEmbd]
  std::vector<float> q;       // [nHead][query headDim, gate headDim]
  std::vector<float> k;       // [nHeadKv][headDim]
  std::vector<float> v;       // [nHeadKv][headDim]
  std::vector<float> att;     // [nHead][headDim]
  std::vector<float> head;    // [headDim], the query at hand
  std::vector<float> scores;  // [positions], turned into exponentials in place
  std::vector<Angle> angles;  // [ropeDim / 2]
};

Scratch& threadScratch() {
  static thread_local Scratch scratch;
  return scratch;
}

void project(Model& m, const Layer& layer, const float* x, Scratch& s) {
  s.xnorm.resize(m.nEmbd);
  rmsNorm(x, floats(layer.attnNorm), s.xnorm.data(), m.nEmbd, kNormEps);
  s.q.assign(kQueryFloats, 0.0f);
  s.k.assign(kKeyFloats, 0.0f);
  s.v.assign(kValueFloats, 0.0f);
  gemvRow(m, layer.attnQ, s.xnorm.data(), s.q.data());
  gemvRow(m, layer.attnK, s.xnorm.data(), s.k.data());
  gemvRow(m, layer.attnV, s.xnorm.data(), s.v.data());
}

void addTo(std::vector<float>& buffer, const float* bias) {
  for (size_t i = 0; i < buffer.size(); ++i) {
    buffer[i] += bias[i];
  }
}

// Deliberate: the query bias decides for all three.
void addBiases(const Layer& layer, Scratch& s) {
  if (layer.attnQBias == nullptr) {
    return;
  }
  addTo(s.q, floats(layer.attnQBias));
  addTo(s.k, floats(layer.attnKBias));
  addTo(s.v, floats(layer.attnVBias));
}

// Angle of pair i: pos * base^(-2i / ropeDim), formed by repeated multiplication. A power per pair
// would round differently.
void computeAngles(size_t pos, size_t ropeDim, std::vector<Angle>& angles) {
  angles.resize(ropeDim / 2);
  const double ratio = std::pow(kRopeBase, -2.0 / static_cast<double>(ropeDim));
  auto angle = static_cast<double>(pos);
  for (Angle& a : angles) {
    a = {static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle))};
    angle *= ratio;
  }
}

// Rotates the pairs (i, i + ropeDim / 2) of one head; dimensions from ropeDim on stay.
void rotate(const std::vector<Angle>& angles, float* head) {
  const size_t half = angles.size();
  for (size_t i = 0; i < half; ++i) {
    const auto [cosine, sine] = angles[i];
    const float x0 = head[i];
    const float x1 = head[i + half];
    head[i] = std::fma(cosine, x0, -(sine * x1));
    head[i + half] = std::fma(sine, x0, cosine * x1);
  }
}

// Keys are cached normalised and rotated, so that no row is touched again.
void storeKeysAndValues(const Model& m, Layer& layer, Scratch& s) {
  for (size_t g = 0; g < m.nHeadKv; ++g) {
    const size_t row = (g * m.maxCtx + layer.pos) * m.headDim;
    float* key = layer.kCache.data() + row;
    rmsNorm(s.k.data() + g * m.headDim, floats(layer.attnKNorm), key, m.headDim, kNormEps);
    rotate(s.angles, key);
    std::copy_n(s.v.data() + g * m.headDim, m.headDim, layer.vCache.data() + row);
  }
  layer.written = std::max(layer.written, layer.pos + 1);
}

// The scaled scores of one query against a head's cached keys; returns their maximum.
float scoreKeys(const float* query, const float* keys, size_t headDim, std::vector<float>& scores) {
  kernels().rowsF32(keys, query, scores.data(), scores.size(), headDim);
  float highest = kNoScore;
  for (float& score : scores) {
    score *= kScoreScale;
    highest = std::max(highest, score);
  }
  return highest;
}

// Turns scores into exponentials; returns their sum, added in position order.
float exponentiate(std::vector<float>& scores, float highest) {
  float sum = 0.0f;
  for (float& score : scores) {
    score = std::exp(score - highest);
    sum += score;
  }
  return sum;
}

void gate(const float* gates, float* values, size_t n) {
  for (size_t d = 0; d < n; ++d) {
    values[d] /= 1.0f + std::exp(-gates[d]);
  }
}

// Output of query head h into its slice of s.att, over the cache with this token's row included.
void attendHead(const Model& m, const Layer& layer, size_t h, Scratch& s, bool reportScores) {
  const float* query = s.q.data() + 2 * h * m.headDim;
  s.head.resize(m.headDim);
  rmsNorm(query, floats(layer.attnQNorm), s.head.data(), m.headDim, kNormEps);
  rotate(s.angles, s.head.data());

  const size_t group = h / (m.nHead / m.nHeadKv);
  const size_t base = group * m.maxCtx * m.headDim;
  s.scores.resize(layer.pos + 1);
  const float highest = scoreKeys(s.head.data(), layer.kCache.data() + base, m.headDim, s.scores);
  if (reportScores) {
    printScoreStatistics(s.scores.data(), layer.pos, highest);
  }
  const float inverseSum = 1.0f / exponentiate(s.scores, highest);

  float* out = s.att.data() + h * m.headDim;
  kernels().addWeightedRows(s.scores.data(), inverseSum, layer.vCache.data() + base, out,
                            s.scores.size(), m.headDim);
  gate(query + m.headDim, out, m.headDim);
}

}  // namespace

void fullAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t pos, size_t layerIdx) {
  std::fill_n(out, m.nEmbd, 0.0f);
  if (layer.pos >= m.maxCtx) {
    return;
  }
  Scratch& s = threadScratch();
  project(m, layer, x, s);
  addBiases(layer, s);
  computeAngles(pos, m.ropeDim, s.angles);
  storeKeysAndValues(m, layer, s);

  s.att.assign(kHeadOutputFloats, 0.0f);
  for (size_t h = 0; h < m.nHead; ++h) {
    attendHead(m, layer, h, s, h == 0 && scoreReportWanted(pos, layerIdx));
  }
  ++layer.pos;
  gemvRow(m, layer.attnOutput, s.att.data(), out);
}

}  // namespace qwen35
