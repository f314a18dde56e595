#include "qwen35/full_attention.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "qwen35/block_products.h"
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

void addTo(float* buffer, const float* bias, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    buffer[i] += bias[i];
  }
}

// Deliberate: the query bias decides for all three.
void addBiases(const Layer& layer, float* q, float* k, float* v) {
  if (layer.attnQBias == nullptr) {
    return;
  }
  addTo(q, floats(layer.attnQBias), kQueryFloats);
  addTo(k, floats(layer.attnKBias), kKeyFloats);
  addTo(v, floats(layer.attnVBias), kValueFloats);
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

// Fills cache row `row`. Keys are cached normalised and rotated, so that no row is touched again.
void storeKeysAndValues(const Model& m, Layer& layer, size_t row, const float* k, const float* v,
                        const std::vector<Angle>& angles) {
  for (size_t g = 0; g < m.nHeadKv; ++g) {
    const size_t at = (g * m.maxCtx + row) * m.headDim;
    float* key = layer.kCache.data() + at;
    rmsNorm(k + g * m.headDim, floats(layer.attnKNorm), key, m.headDim, kNormEps);
    rotate(angles, key);
    std::copy_n(v + g * m.headDim, m.headDim, layer.vCache.data() + at);
  }
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

// What one query head works in.
struct HeadScratch {
  std::vector<float> query;   // [headDim]
  std::vector<float> scores;  // [positions], turned into exponentials in place
};

// Output of query head h over the first `positions` cache rows. q: the token's queries and gates;
// out: the head's slice, zeros before.
void attendHead(const Model& m, const Layer& layer, size_t h, const float* q, size_t positions,
                const std::vector<Angle>& angles, HeadScratch& s, float* out, bool report) {
  const float* query = q + 2 * h * m.headDim;
  rmsNorm(query, floats(layer.attnQNorm), s.query.data(), m.headDim, kNormEps);
  rotate(angles, s.query.data());

  const size_t group = h / (m.nHead / m.nHeadKv);
  const size_t base = group * m.maxCtx * m.headDim;
  s.scores.resize(positions);
  const float highest = scoreKeys(s.query.data(), layer.kCache.data() + base, m.headDim, s.scores);
  if (report) {
    printScoreStatistics(s.scores.data(), positions - 1, highest);
  }
  const float inverseSum = 1.0f / exponentiate(s.scores, highest);
  kernels().addWeightedRows(s.scores.data(), inverseSum, layer.vCache.data() + base, out, positions,
                            m.headDim);
  gate(query + m.headDim, out, m.headDim);
}

// One per thread of the team, with room for the scores of `positions`. Made ready by the calling
// thread: nothing may be thrown inside a parallel region.
std::vector<HeadScratch>& headScratch(const Model& m, size_t positions) {
  static thread_local std::vector<HeadScratch> perThread;
  perThread.resize(static_cast<size_t>(omp_get_max_threads()));
  for (HeadScratch& s : perThread) {
    s.query.resize(m.headDim);
    s.scores.reserve(positions);
  }
  return perThread;
}

HeadScratch& ofThisThread(std::vector<HeadScratch>& perThread) {
  return perThread[static_cast<size_t>(omp_get_thread_num())];
}

}  // namespace

void fullAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t pos, size_t layerIdx) {
  std::fill_n(out, m.nEmbd, 0.0f);
  if (layer.pos >= m.maxCtx) {
    return;
  }
  Scratch& s = threadScratch();
  project(m, layer, x, s);
  addBiases(layer, s.q.data(), s.k.data(), s.v.data());
  computeAngles(pos, m.ropeDim, s.angles);
  storeKeysAndValues(m, layer, layer.pos, s.k.data(), s.v.data(), s.angles);
  layer.written = std::max(layer.written, layer.pos + 1);

  s.att.assign(kHeadOutputFloats, 0.0f);
  const bool report = scoreReportWanted(pos, layerIdx);
  std::vector<HeadScratch>& heads = headScratch(m, layer.pos + 1);
#pragma omp parallel for schedule(static)
  for (size_t h = 0; h < m.nHead; ++h) {
    attendHead(m, layer, h, s.q.data(), layer.pos + 1, s.angles, ofThisThread(heads),
               s.att.data() + h * m.headDim, report && h == 0);
  }
  ++layer.pos;
  gemvRow(m, layer.attnOutput, s.att.data(), out);
}

namespace {

// The tokens of a block, each buffer [count][width of the step's buffer].
struct BlockScratch {
  std::vector<float> xnorm;
  std::vector<float> q;
  std::vector<float> k;
  std::vector<float> v;
  std::vector<float> att;
  std::vector<std::vector<Angle>> angles;
  BlockInputs inputs;
};

BlockScratch& blockScratch() {
  static thread_local BlockScratch scratch;
  return scratch;
}

void projectBlock(const Model& m, const Layer& layer, const float* x, size_t count,
                  BlockScratch& s) {
  s.xnorm.resize(count * m.nEmbd);
  s.q.resize(count * kQueryFloats);
  s.k.resize(count * kKeyFloats);
  s.v.resize(count * kValueFloats);
  rmsNormRows(x, floats(layer.attnNorm), s.xnorm.data(), count, m.nEmbd, kNormEps);
  s.inputs.assign(s.xnorm.data(), count, m.nEmbd);
  multiplyBlock(*layer.attnQ, s.inputs, s.q.data());
  multiplyBlock(*layer.attnK, s.inputs, s.k.data());
  multiplyBlock(*layer.attnV, s.inputs, s.v.data());
}

// Caches every token of the block, then lets every head of every token attend; a token sees the
// rows up to its own.
void attendBlock(const Model& m, Layer& layer, size_t count, size_t pos, BlockScratch& s) {
  s.angles.resize(std::max(s.angles.size(), count));
  for (std::vector<Angle>& angles : s.angles) {
    angles.resize(m.ropeDim / 2);
  }
  std::vector<HeadScratch>& heads = headScratch(m, layer.pos + count);
  s.att.assign(count * kHeadOutputFloats, 0.0f);
#pragma omp parallel
  {
#pragma omp for schedule(static)
    for (size_t i = 0; i < count; ++i) {
      float* k = s.k.data() + i * kKeyFloats;
      float* v = s.v.data() + i * kValueFloats;
      addBiases(layer, s.q.data() + i * kQueryFloats, k, v);
      computeAngles(pos + i, m.ropeDim, s.angles[i]);
      storeKeysAndValues(m, layer, layer.pos + i, k, v, s.angles[i]);
    }
#pragma omp for schedule(static)
    for (size_t h = 0; h < m.nHead; ++h) {
      for (size_t i = 0; i < count; ++i) {
        attendHead(m, layer, h, s.q.data() + i * kQueryFloats, layer.pos + i + 1, s.angles[i],
                   ofThisThread(heads), s.att.data() + i * kHeadOutputFloats + h * m.headDim,
                   /*report=*/false);
      }
    }
  }
}

}  // namespace

void fullAttnBlock(Model& m, Layer& layer, const float* x, float* out, size_t count, size_t pos) {
  BlockScratch& s = blockScratch();
  projectBlock(m, layer, x, count, s);
  attendBlock(m, layer, count, pos, s);
  layer.pos += count;
  layer.written = std::max(layer.written, layer.pos);
  s.inputs.assign(s.att.data(), count, kHeadOutputFloats);
  multiplyBlock(*layer.attnOutput, s.inputs, out);
}

}  // namespace qwen35
