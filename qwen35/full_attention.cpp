#include "qwen35/full_attention.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <span>
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

// Query heads and tokens that attend together: every row of their keys and values is read once for
// all of them.
constexpr size_t kMaxHeadsPerTile = 4;
constexpr size_t kTokensPerTile = 4;
constexpr size_t kMaxQueries = kMaxHeadsPerTile * kTokensPerTile;

// Rows that all queries of a tile take their turn at: they fit the first cache, beside the queries.
constexpr size_t kRowsPerTurn = 16;

// One query head of one token.
struct Query {
  const float* projected;            // [query headDim, gate headDim]
  const std::vector<Angle>* angles;  // of the token
  size_t positions;                  // the cache rows that it sees, its own included
  float* out;                        // [headDim], zeros before
};

struct AttendScratch {
  std::vector<float> queries;  // [kMaxQueries][headDim], normalised and rotated
  std::vector<float> scores;   // [kMaxQueries][maxCtx], turned into exponentials in place
};

// Calls visit(query, first row, number of rows) so that all queries meet all of their rows, each in
// rising order.
template <typename Visit>
void inTurns(std::span<const Query> queries, const Visit& visit) {
  size_t most = 0;
  for (const Query& query : queries) {
    most = std::max(most, query.positions);
  }
  for (size_t row = 0; row < most; row += kRowsPerTurn) {
    for (size_t i = 0; i < queries.size(); ++i) {
      if (row < queries[i].positions) {
        visit(i, row, std::min(kRowsPerTurn, queries[i].positions - row));
      }
    }
  }
}

// Scales scores in place; returns their maximum.
float scale(std::span<float> scores) {
  float highest = kNoScore;
  for (float& score : scores) {
    score *= kScoreScale;
    highest = std::max(highest, score);
  }
  return highest;
}

// Turns scores into exponentials; returns their sum, added in position order.
float exponentiate(std::span<float> scores, float highest) {
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

// The outputs of at most kMaxQueries queries over the cache of their key/value head. report: show
// the scores of the first.
void attend(const Model& m, const Layer& layer, size_t kvHead, std::span<const Query> queries,
            AttendScratch& s, bool report) {
  const size_t d = m.headDim;
  const float* keys = layer.kCache.data() + kvHead * m.maxCtx * d;
  const float* values = layer.vCache.data() + kvHead * m.maxCtx * d;
  const auto scoresOf = [&](size_t i) { return s.scores.data() + i * m.maxCtx; };
  for (size_t i = 0; i < queries.size(); ++i) {
    float* query = s.queries.data() + i * d;
    rmsNorm(queries[i].projected, floats(layer.attnQNorm), query, d, kNormEps);
    rotate(*queries[i].angles, query);
  }
  inTurns(queries, [&](size_t i, size_t row, size_t count) {
    kernels().rowsF32(keys + row * d, s.queries.data() + i * d, scoresOf(i) + row, count, d);
  });
  float inverseSums[kMaxQueries];
  for (size_t i = 0; i < queries.size(); ++i) {
    const std::span<float> scores(scoresOf(i), queries[i].positions);
    const float highest = scale(scores);
    if (report && i == 0) {
      printScoreStatistics(scores.data(), scores.size() - 1, highest);
    }
    inverseSums[i] = 1.0f / exponentiate(scores, highest);
  }
  inTurns(queries, [&](size_t i, size_t row, size_t count) {
    kernels().addWeightedRows(scoresOf(i) + row, inverseSums[i], values + row * d, queries[i].out,
                              count, d);
  });
  for (const Query& query : queries) {
    gate(query.projected + d, query.out, d);
  }
}

// Heads of one key/value head in a tile: all that share it, unless the threads then share the tiles
// unevenly.
size_t headsPerTile(const Model& m, size_t tilesPerHead) {
  const auto threads = static_cast<size_t>(omp_get_max_threads());
  size_t heads = std::min(kMaxHeadsPerTile, m.nHead / m.nHeadKv);
  while (heads > 1 && m.nHead / heads * tilesPerHead % threads != 0) {
    heads /= 2;
  }
  return heads;
}

// One per thread of the team. Made ready by the calling thread: nothing may be thrown inside a
// parallel region.
std::vector<AttendScratch>& attendScratch(const Model& m) {
  static thread_local std::vector<AttendScratch> perThread;
  perThread.resize(static_cast<size_t>(omp_get_max_threads()));
  for (AttendScratch& s : perThread) {
    s.queries.resize(kMaxQueries * m.headDim);
    s.scores.resize(kMaxQueries * m.maxCtx);
  }
  return perThread;
}

// Consecutive tokens whose heads are to attend.
struct Tokens {
  size_t count;
  size_t firstRow;                   // of the cache, where the first one's key is
  const float* projected;            // [count][kQueryFloats]
  const std::vector<Angle>* angles;  // [count]
  float* out;                        // [count][kHeadOutputFloats], zeros before
};

// All heads of all tokens, each over the cache rows up to its token's own.
void attendAll(const Model& m, const Layer& layer, const Tokens& tokens, bool report) {
  const size_t nTiles = (tokens.count + kTokensPerTile - 1) / kTokensPerTile;
  const size_t heads = headsPerTile(m, nTiles);
  std::vector<AttendScratch>& scratch = attendScratch(m);
#pragma omp parallel for schedule(static)
  for (size_t task = 0; task < m.nHead / heads * nTiles; ++task) {
    const size_t firstHead = task / nTiles * heads;
    const size_t firstToken = task % nTiles * kTokensPerTile;
    const size_t endToken = std::min(firstToken + kTokensPerTile, tokens.count);
    Query queries[kMaxQueries];
    size_t n = 0;
    for (size_t i = firstToken; i < endToken; ++i) {
      for (size_t h = firstHead; h < firstHead + heads; ++h) {
        queries[n++] = {tokens.projected + i * kQueryFloats + 2 * h * m.headDim, &tokens.angles[i],
                        tokens.firstRow + i + 1,
                        tokens.out + i * kHeadOutputFloats + h * m.headDim};
      }
    }
    attend(m, layer, firstHead / (m.nHead / m.nHeadKv), {queries, n},
           scratch[static_cast<size_t>(omp_get_thread_num())], report && task == 0);
  }
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
  attendAll(m, layer, {1, layer.pos, s.q.data(), &s.angles, s.att.data()},
            scoreReportWanted(pos, layerIdx));
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

// Caches every token of the block, then lets every head of every token attend.
void attendBlock(const Model& m, Layer& layer, size_t count, size_t pos, BlockScratch& s) {
  s.angles.resize(std::max(s.angles.size(), count));
  for (std::vector<Angle>& angles : s.angles) {
    angles.resize(m.ropeDim / 2);
  }
#pragma omp parallel for schedule(static)
  for (size_t i = 0; i < count; ++i) {
    float* k = s.k.data() + i * kKeyFloats;
    float* v = s.v.data() + i * kValueFloats;
    addBiases(layer, s.q.data() + i * kQueryFloats, k, v);
    computeAngles(pos + i, m.ropeDim, s.angles[i]);
    storeKeysAndValues(m, layer, layer.pos + i, k, v, s.angles[i]);
  }
  layer.written = std::max(layer.written, layer.pos + count);
  s.att.assign(count * kHeadOutputFloats, 0.0f);
  attendAll(m, layer, {count, layer.pos, s.q.data(), s.angles.data(), s.att.data()},
            /*report=*/false);
}

}  // namespace

void fullAttnBlock(Model& m, Layer& layer, const float* x, float* out, size_t count, size_t pos) {
  BlockScratch& s = blockScratch();
  projectBlock(m, layer, x, count, s);
  attendBlock(m, layer, count, pos, s);
  layer.pos += count;
  s.inputs.assign(s.att.data(), count, kHeadOutputFloats);
  multiplyBlock(*layer.attnOutput, s.inputs, out);
}

}  // namespace qwen35
