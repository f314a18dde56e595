#include "qwen35/full_attention.h"

#include <algorithm>
#include <cmath>
#include <span>

#include "qwen35/elementwise.h"

namespace qwen35 {

namespace {

// Lowest score that the running maximum starts from; finite, so that a row of -infinity scores
// still subtracts to -infinity.
constexpr float kNoScore = -1e30f;

// Cache rows of a piece of scores, and those that all queries take their turn at: they fit L1,
// beside the queries.
constexpr size_t kRowsPerPiece = 64;
constexpr size_t kRowsPerTurn = 16;

// Dimensions of a piece of values.
constexpr size_t kDimsPerPiece = 64;
static_assert(kRowsPerTurn * kDimsPerPiece <= kTileRows * kChunk);  // fits a thread's scratch

// Rotates the pairs (i, i + half) of one head; dimensions from 2 * half on stay.
void rotate(const RopeAngle* angles, size_t half, float* head) {
  for (size_t i = 0; i < half; ++i) {
    const auto [cosine, sine] = angles[i];
    const float x0 = head[i];
    const float x1 = head[i + half];
    head[i] = std::fma(cosine, x0, -(sine * x1));
    head[i + half] = std::fma(sine, x0, cosine * x1);
  }
}

void addTo(float* buffer, const float* bias, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    buffer[i] += bias[i];
  }
}

// Scales scores in place; returns their maximum.
float scale(std::span<float> scores, float factor) {
  float highest = kNoScore;
  for (float& score : scores) {
    score *= factor;
    highest = std::max(highest, score);
  }
  return highest;
}

// The sum in position order.
float sum(std::span<const float> exponentials) {
  float total = 0.0f;
  for (const float exponential : exponentials) {
    total += exponential;
  }
  return total;
}

// Rows of a cache, as its type has them: one of the two is null.
struct CacheRows {
  float* floats;
  uint16_t* halves;

  CacheRows from(size_t element) const {
    return halves == nullptr ? CacheRows{floats + element, nullptr}
                             : CacheRows{nullptr, halves + element};
  }
};

CacheRows rowsOf(StateBuffer& cache, CacheType type) {
  return type == CacheType::BF16 ? CacheRows{nullptr, reinterpret_cast<uint16_t*>(cache.data())}
                                 : CacheRows{cache.data(), nullptr};
}

void storeRow(const float* values, const CacheRows& to, size_t n) {
  if (to.halves == nullptr) {
    std::copy_n(values, n, to.floats);
    return;
  }
  std::transform(values, values + n, to.halves, f32ToBf16);
}

// The tokens of a pass in one layer.
class Heads {
 public:
  Heads(const Work& work, Layer& attended)
      : w(work),
        m(work.m),
        at(work.at()),
        layer(attended),
        keys(rowsOf(attended.kCache, work.m.cacheType)),
        values(rowsOf(attended.vCache, work.m.cacheType)),
        d(m.headDim),
        group(m.nHead / m.nHeadKv),
        scoreScale(1.0f / std::sqrt(static_cast<float>(d))) {}

  size_t width() const { return m.nHead * d; }
  size_t kvWidth() const { return m.nHeadKv * d; }

  // A step: biases, then norms and rotations, and the tokens' keys and values into the cache. Keys
  // are cached normalised and rotated, so that no row is touched again.
  void store() const {
    w.member.forEach(w.count * m.nHeadKv, [&](size_t piece) {
      const size_t token = piece / m.nHeadKv;
      const size_t g = piece % m.nHeadKv;
      addBiases(token, g);
      const RopeAngle* angles = at.angles + token * (m.ropeDim / 2);
      const size_t row = (g * m.maxCtx + layer.pos + token) * d;
      float* key = at.key + token * kvWidth() + g * d;
      rmsNorm(key, floats(layer.attnKNorm), key, d, m.normEps);
      rotate(angles, m.ropeDim / 2, key);
      storeRow(key, keys.from(row), d);
      storeRow(at.value + token * kvWidth() + g * d, values.from(row), d);
      for (size_t h = g * group; h < (g + 1) * group; ++h) {
        float* query = headQuery(token, h);
        rmsNorm(projected(token, h), floats(layer.attnQNorm), query, d, m.normEps);
        rotate(angles, m.ropeDim / 2, query);
      }
    });
  }

  // Three steps: the tokens [begin, end) attend, each to the cache rows up to its own.
  void attend(size_t begin, size_t end, size_t layerIdx) const {
    const size_t rows = positions(end - 1);
    const size_t runs = (rows + kRowsPerPiece - 1) / kRowsPerPiece;
    w.member.forEach(m.nHeadKv * runs, [&](size_t piece) {
      const size_t first = piece % runs * kRowsPerPiece;
      score(piece / runs, begin, end, first, std::min(first + kRowsPerPiece, rows));
    });
    w.member.forEach((end - begin) * m.nHead, [&](size_t piece) {
      const size_t token = begin + piece / m.nHead;
      softmax(begin, token, piece % m.nHead, layerIdx);
    });
    const size_t parts = (d + kDimsPerPiece - 1) / kDimsPerPiece;
    w.member.forEach(m.nHeadKv * parts, [&](size_t piece) {
      const size_t first = piece % parts * kDimsPerPiece;
      addValues(piece / parts, begin, end, first, std::min(kDimsPerPiece, d - first));
    });
  }

 private:
  // Dimensions [first, first + n) of the values of key/value head g, a turn's rows at a time: where
  // they lie or, of halves, widened once for all queries of the turn.
  class Turn {
   public:
    Turn(const Heads& owner, size_t g, size_t first, size_t n)
        : heads(owner),
          column((g * owner.m.maxCtx) * owner.d + first),
          width(n),
          widened(owner.w.context.scratch(owner.w.member.thread()).rows) {}

    size_t stride() const { return heads.values.halves == nullptr ? heads.d : width; }

    // The rows from `row` on, where a turn begins, up to those that the token sees.
    const float* values(size_t row, size_t lastToken) const {
      const CacheRows from = heads.values.from(column + row * heads.d);
      if (from.halves == nullptr) {
        return from.floats;
      }
      if (row != widenedRow) {
        const size_t count = std::min(kRowsPerTurn, heads.positions(lastToken) - row);
        for (size_t i = 0; i < count; ++i) {
          heads.w.kernels().decodeBf16(from.halves + i * heads.d, widened + i * width, width);
        }
        widenedRow = row;
      }
      return widened;
    }

   private:
    const Heads& heads;
    size_t column;
    size_t width;
    float* widened;  // [kRowsPerTurn][width]
    mutable size_t widenedRow = SIZE_MAX;
  };

  float* projected(size_t token, size_t h) const {
    return at.query + token * 2 * width() + 2 * h * d;
  }
  float* headQuery(size_t token, size_t h) const { return at.headQuery + token * width() + h * d; }
  float* headOut(size_t token, size_t h) const { return at.headOut + token * width() + h * d; }
  float* scores(size_t begin, size_t token, size_t h) const {
    return at.scores + ((token - begin) * m.nHead + h) * m.maxCtx;
  }
  float& inverseSum(size_t begin, size_t token, size_t h) const {
    return at.inverseSums[(token - begin) * m.nHead + h];
  }

  // The cache rows that a token sees, its own included.
  size_t positions(size_t token) const { return layer.pos + token + 1; }

  // Deliberate: the query bias decides for all three.
  void addBiases(size_t token, size_t g) const {
    if (layer.attnQBias == nullptr) {
      return;
    }
    addTo(projected(token, g * group), floats(layer.attnQBias) + 2 * g * group * d, 2 * group * d);
    addTo(at.key + token * kvWidth() + g * d, floats(layer.attnKBias) + g * d, d);
    addTo(at.value + token * kvWidth() + g * d, floats(layer.attnVBias) + g * d, d);
  }

  // Calls visit(token, head, row, count) so that all queries of key/value head g meet the cache
  // rows [first, last), each in rising order and together in turns: a row is read from memory once.
  template <typename Visit>
  void inTurns(size_t g, size_t begin, size_t end, size_t first, size_t last,
               const Visit& visit) const {
    for (size_t row = first; row < last; row += kRowsPerTurn) {
      for (size_t token = begin; token < end; ++token) {
        if (row >= positions(token)) {
          continue;
        }
        const size_t count = std::min({kRowsPerTurn, last - row, positions(token) - row});
        for (size_t h = g * group; h < (g + 1) * group; ++h) {
          visit(token, h, row, count);
        }
      }
    }
  }

  void score(size_t g, size_t begin, size_t end, size_t first, size_t last) const {
    inTurns(g, begin, end, first, last, [&](size_t token, size_t h, size_t row, size_t count) {
      const CacheRows from = keys.from((g * m.maxCtx + row) * d);
      float* out = scores(begin, token, h) + row;
      if (from.halves == nullptr) {
        w.kernels().rowsF32(from.floats, headQuery(token, h), out, count, d);
      } else {
        w.kernels().rowsBf16(from.halves, headQuery(token, h), out, count, d);
      }
    });
  }

  void softmax(size_t begin, size_t token, size_t h, size_t layerIdx) const {
    const std::span<float> own(scores(begin, token, h), positions(token));
    const float highest = scale(own, scoreScale);
    if (h == 0 && w.count == 1 && w.diagnostics().reportsScores(w.pos, layerIdx)) {
      printScoreStatistics(own.data(), own.size() - 1, highest);
    }
    w.kernels().exponentials(own.data(), highest, own.data(), own.size());
    inverseSum(begin, token, h) = 1.0f / sum(own);
  }

  // Dimensions [first, first + n) of the outputs.
  void addValues(size_t g, size_t begin, size_t end, size_t first, size_t n) const {
    const Turn turn(*this, g, first, n);
    for (size_t token = begin; token < end; ++token) {
      for (size_t h = g * group; h < (g + 1) * group; ++h) {
        std::fill_n(headOut(token, h) + first, n, 0.0f);
      }
    }
    inTurns(g, begin, end, 0, positions(end - 1),
            [&](size_t token, size_t h, size_t row, size_t count) {
              w.kernels().addWeightedRows(scores(begin, token, h) + row,
                                          inverseSum(begin, token, h), turn.values(row, end - 1),
                                          turn.stride(), headOut(token, h) + first, count, n);
            });
    for (size_t token = begin; token < end; ++token) {
      for (size_t h = g * group; h < (g + 1) * group; ++h) {
        float* out = headOut(token, h) + first;
        w.kernels().sigmoidGate(out, projected(token, h) + d + first, out, n);
      }
    }
  }

  const Work& w;
  const Model& m;
  const PassBuffers& at;
  Layer& layer;
  CacheRows keys;
  CacheRows values;
  size_t d;
  size_t group;  // query heads that share a key/value head
  float scoreScale;
};

}  // namespace

void computeAngles(const Work& w, size_t token) {
  const size_t half = w.m.ropeDim / 2;
  RopeAngle* angles = w.at().angles + token * half;
  const double ratio = std::pow(w.m.shape.ropeBase, -2.0 / static_cast<double>(w.m.ropeDim));
  auto angle = static_cast<double>(w.pos + token);
  for (size_t i = 0; i < half; ++i) {
    angles[i] = {static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle))};
    angle *= ratio;
  }
}

void fullAttention(const Work& w, Layer& layer, size_t layerIdx, const ResidualSum& x, float* out) {
  const PassBuffers& at = w.at();
  const size_t nEmbd = w.m.nEmbd;
  if (layer.pos + w.count > w.m.maxCtx) {
    skipBlock(w, x, out);
    return;
  }
  const Heads heads(w, layer);
  const Matmul projections[] = {{layer.attnQ, at.query, 2 * heads.width()},
                                {layer.attnK, at.key, heads.kvWidth()},
                                {layer.attnV, at.value, heads.kvWidth()}};
  const MatmulInput in = w.input(at.normed, nEmbd, projections);
  normStep(w, x, layer.attnNorm, at.normed, in);
  w.multiply(in, projections);
  heads.store();
  for (size_t token = 0; token < w.count; token += kAttentionTokens) {
    heads.attend(token, std::min(token + kAttentionTokens, w.count), layerIdx);
  }
  const Matmul output[] = {{layer.attnOutput, out, nEmbd}};
  const MatmulInput attended = w.input(at.headOut, heads.width(), output);
  w.prepare(attended);
  w.multiply(attended, output);
}

void fullAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t pos, size_t layerIdx) {
  Context context(m);
  context.diagnostics = Diagnostics::fromEnvironment();
  context.team().run([&](Team::Member& member) {
    const Work w{context, member, m, 1, pos, Arithmetic::SingleToken};
    member.once([&] { computeAngles(w, 0); });
    fullAttention(w, layer, layerIdx, {x, nullptr, nullptr}, out);
  });
  if (layer.pos < m.maxCtx) {
    ++layer.pos;
  }
}

}  // namespace qwen35
