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

// Floats of a token's head outputs, and of its keys or its values.
size_t headFloats(const Model& m) {
  return m.nHead * m.headDim;
}
size_t kvFloats(const Model& m) {
  return m.nHeadKv * m.headDim;
}

// Tokens of one sequence that attend together.
struct Stretch {
  const Sequence* sequence;
  size_t begin;  // token of the pass
  size_t end;
};

constexpr size_t piecesOf(size_t n, size_t longest) {
  return (n + longest - 1) / longest;
}

// The tokens of a sequence in one layer.
class Heads {
 public:
  Heads(const Work& work, const Sequence& sequence, Layer& attended)
      : w(work),
        m(*sequence.model),
        at(work.at()),
        layer(attended),
        firstToken(sequence.first),
        keys(rowsOf(attended.kCache, m.cacheType)),
        values(rowsOf(attended.vCache, m.cacheType)),
        d(m.headDim),
        group(m.nHead / m.nHeadKv),
        scoreScale(1.0f / std::sqrt(static_cast<float>(d))) {}

  // Biases, then norms and rotations, of key/value head g and its queries, and the token's key and
  // value into the cache. Keys are cached normalised and rotated, so that no row is touched again.
  void store(size_t token, size_t g) const {
    addBiases(token, g);
    const RopeAngle* angles = at.angles + token * (m.ropeDim / 2);
    const size_t row = (g * m.maxCtx + positions(token) - 1) * d;
    float* key = at.key + token * kvFloats(m) + g * d;
    rmsNorm(key, floats(layer.attnKNorm), key, d, m.normEps);
    rotate(angles, m.ropeDim / 2, key);
    storeRow(key, keys.from(row), d);
    storeRow(at.value + token * kvFloats(m) + g * d, values.from(row), d);
    for (size_t h = g * group; h < (g + 1) * group; ++h) {
      float* query = headQuery(token, h);
      rmsNorm(projected(token, h), floats(layer.attnQNorm), query, d, m.normEps);
      rotate(angles, m.ropeDim / 2, query);
    }
  }

  // Pieces of the three steps in which a stretch attends: each of its tokens to the cache rows up
  // to its own.
  size_t scorePieces(const Stretch& s) const {
    return m.nHeadKv * piecesOf(positions(s.end - 1), kRowsPerPiece);
  }
  size_t softmaxPieces(const Stretch& s) const { return (s.end - s.begin) * m.nHead; }
  size_t valuePieces(const Stretch&) const { return m.nHeadKv * piecesOf(d, kDimsPerPiece); }

  // Cache rows of one key/value head.
  void score(const Stretch& s, size_t piece) const {
    const size_t rows = positions(s.end - 1);
    const size_t runs = piecesOf(rows, kRowsPerPiece);
    const size_t g = piece / runs;
    const size_t first = piece % runs * kRowsPerPiece;
    const size_t last = std::min(first + kRowsPerPiece, rows);
    inTurns(g, s, first, last, [&](size_t token, size_t h, size_t row, size_t count) {
      const CacheRows from = keys.from((g * m.maxCtx + row) * d);
      float* out = scores(token, h) + row;
      if (from.halves == nullptr) {
        w.kernels().rowsF32(from.floats, headQuery(token, h), out, count, d);
      } else {
        w.kernels().rowsBf16(from.halves, headQuery(token, h), out, count, d);
      }
    });
  }

  // A token and head.
  void softmax(const Stretch& s, size_t piece, size_t layerIdx) const {
    const size_t token = s.begin + piece / m.nHead;
    const size_t h = piece % m.nHead;
    const std::span<float> own(scores(token, h), positions(token));
    const float highest = scale(own, scoreScale);
    if (h == 0 && w.count == 1 && w.diagnostics().reportsScores(w.pos(), layerIdx)) {
      printScoreStatistics(own.data(), own.size() - 1, highest);
    }
    w.kernels().exponentials(own.data(), highest, own.data(), own.size());
    inverseSum(token, h) = 1.0f / sum(own);
  }

  // Dimensions of the outputs of one key/value head's queries.
  void addValues(const Stretch& s, size_t piece) const {
    const size_t parts = piecesOf(d, kDimsPerPiece);
    const size_t g = piece / parts;
    const size_t first = piece % parts * kDimsPerPiece;
    const size_t n = std::min(kDimsPerPiece, d - first);
    const Turn turn(*this, g, first, n);
    for (size_t token = s.begin; token < s.end; ++token) {
      for (size_t h = g * group; h < (g + 1) * group; ++h) {
        std::fill_n(headOut(token, h) + first, n, 0.0f);
      }
    }
    inTurns(g, s, 0, positions(s.end - 1), [&](size_t token, size_t h, size_t row, size_t count) {
      w.kernels().addWeightedRows(scores(token, h) + row, inverseSum(token, h),
                                  turn.values(row, s.end - 1), turn.stride(),
                                  headOut(token, h) + first, count, n);
    });
    for (size_t token = s.begin; token < s.end; ++token) {
      for (size_t h = g * group; h < (g + 1) * group; ++h) {
        float* out = headOut(token, h) + first;
        w.kernels().sigmoidGate(out, projected(token, h) + d + first, out, n);
      }
    }
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
    return at.query + token * 2 * headFloats(m) + 2 * h * d;
  }
  float* headQuery(size_t token, size_t h) const {
    return at.headQuery + token * headFloats(m) + h * d;
  }
  float* headOut(size_t token, size_t h) const {
    return at.headOut + token * headFloats(m) + h * d;
  }
  float* scores(size_t token, size_t h) const {
    return at.scores + (token % kAttentionTokens * m.nHead + h) * w.context.maxPositions();
  }
  float& inverseSum(size_t token, size_t h) const {
    return at.inverseSums[token % kAttentionTokens * m.nHead + h];
  }

  // The cache rows that a token sees, its own included.
  size_t positions(size_t token) const { return layer.pos + token - firstToken + 1; }

  // Deliberate: the query bias decides for all three.
  void addBiases(size_t token, size_t g) const {
    if (layer.attnQBias == nullptr) {
      return;
    }
    addTo(projected(token, g * group), floats(layer.attnQBias) + 2 * g * group * d, 2 * group * d);
    addTo(at.key + token * kvFloats(m) + g * d, floats(layer.attnKBias) + g * d, d);
    addTo(at.value + token * kvFloats(m) + g * d, floats(layer.attnVBias) + g * d, d);
  }

  // Calls visit(token, head, row, count) so that all queries of key/value head g meet the cache
  // rows [first, last), each in rising order and together in turns: a row is read from memory once.
  template <typename Visit>
  void inTurns(size_t g, const Stretch& s, size_t first, size_t last, const Visit& visit) const {
    for (size_t row = first; row < last; row += kRowsPerTurn) {
      for (size_t token = s.begin; token < s.end; ++token) {
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

  const Work& w;
  const Model& m;
  const PassBuffers& at;
  Layer& layer;
  size_t firstToken;
  CacheRows keys;
  CacheRows values;
  size_t d;
  size_t group;  // query heads that share a key/value head
  float scoreScale;
};

// Tokens of a pass that attend together: the scores of all of them are held. As many steps for
// those of several sequences as for those of one.
class Attention {
 public:
  Attention(const Work& work, Layer& ofFirst, size_t index, size_t begin, size_t end)
      : w(work), layer(ofFirst), layerIdx(index) {
    for (size_t token = begin; token < end; token = stretches[count++].end) {
      const Sequence& sequence = w.sequenceOf(token);
      stretches[count] = {&sequence, token, std::min(end, sequence.first + sequence.count)};
    }
  }

  // Three steps.
  void attend() const {
    forEach(&Heads::scorePieces,
            [](const Heads& heads, const Stretch& s, size_t piece) { heads.score(s, piece); });
    forEach(&Heads::softmaxPieces, [&](const Heads& heads, const Stretch& s, size_t piece) {
      heads.softmax(s, piece, layerIdx);
    });
    forEach(&Heads::valuePieces,
            [](const Heads& heads, const Stretch& s, size_t piece) { heads.addValues(s, piece); });
  }

 private:
  Heads headsOf(const Stretch& s) const {
    return {w, *s.sequence, w.layerOf(*s.sequence, layer, layerIdx)};
  }

  // A step: the pieces of every stretch.
  template <typename Piece>
  void forEach(size_t (Heads::*nPieces)(const Stretch&) const, const Piece& piece) const {
    size_t ends[kAttentionTokens];
    size_t total = 0;
    for (size_t i = 0; i < count; ++i) {
      total += (headsOf(stretches[i]).*nPieces)(stretches[i]);
      ends[i] = total;
    }
    w.member.forEach(total, [&](size_t at) {
      size_t i = 0;
      while (at >= ends[i]) {
        ++i;
      }
      piece(headsOf(stretches[i]), stretches[i], i == 0 ? at : at - ends[i - 1]);
    });
  }

  const Work& w;
  Layer& layer;
  size_t layerIdx;
  size_t count = 0;
  Stretch stretches[kAttentionTokens];
};

// A step, a piece for each token and key/value head.
void store(const Work& w, Layer& layer, size_t layerIdx) {
  const size_t groups = w.m.nHeadKv;
  w.member.forEach(w.count * groups, [&](size_t piece) {
    const size_t token = piece / groups;
    const Sequence& sequence = w.sequenceOf(token);
    Heads(w, sequence, w.layerOf(sequence, layer, layerIdx)).store(token, piece % groups);
  });
}

bool hasRoom(const Work& w, Layer& layer, size_t layerIdx) {
  return std::all_of(w.sequences.begin(), w.sequences.end(), [&](const Sequence& sequence) {
    return w.layerOf(sequence, layer, layerIdx).pos + sequence.count <= sequence.model->maxCtx;
  });
}

}  // namespace

void computeAngles(const Work& w, size_t token) {
  const size_t half = w.m.ropeDim / 2;
  RopeAngle* angles = w.at().angles + token * half;
  const double ratio = std::pow(w.m.shape.ropeBase, -2.0 / static_cast<double>(w.m.ropeDim));
  const Sequence& sequence = w.sequenceOf(token);
  auto angle = static_cast<double>(sequence.pos + token - sequence.first);
  for (size_t i = 0; i < half; ++i) {
    angles[i] = {static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle))};
    angle *= ratio;
  }
}

void fullAttention(const Work& w, Layer& layer, size_t layerIdx, const ResidualSum& x, float* out) {
  const PassBuffers& at = w.at();
  const size_t nEmbd = w.m.nEmbd;
  if (!hasRoom(w, layer, layerIdx)) {
    skipBlock(w, x, out);
    return;
  }
  const size_t width = headFloats(w.m);
  const size_t kvWidth = kvFloats(w.m);
  const Matmul projections[] = {{layer.attnQ, at.query, 2 * width},
                                {layer.attnK, at.key, kvWidth},
                                {layer.attnV, at.value, kvWidth}};
  const MatmulInput in = w.input(at.normed, nEmbd, projections);
  normStep(w, x, layer.attnNorm, at.normed, in);
  w.multiply(in, projections);
  store(w, layer, layerIdx);
  for (size_t token = 0; token < w.count; token += kAttentionTokens) {
    const size_t end = std::min(token + kAttentionTokens, w.count);
    Attention(w, layer, layerIdx, token, end).attend();
  }
  const Matmul output[] = {{layer.attnOutput, out, nEmbd}};
  const MatmulInput attended = w.input(at.headOut, width, output);
  w.prepare(attended);
  w.multiply(attended, output);
}

void fullAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t pos, size_t layerIdx) {
  Context context(m);
  context.diagnostics = Diagnostics::fromEnvironment();
  const Sequence sequence[] = {{.model = &m, .pos = pos}};
  context.team().run([&](Team::Member& member) {
    const Work w{context, member, m, 1, Arithmetic::SingleToken, sequence};
    member.once([&] { computeAngles(w, 0); });
    fullAttention(w, layer, layerIdx, {x, nullptr, nullptr}, out);
  });
  if (layer.pos < m.maxCtx) {
    ++layer.pos;
  }
}

}  // namespace qwen35
