#include "qwen35/matmul.h"

#include <algorithm>
#include <cassert>

#include "quant/blocks.h"
#include "qwen35/weights.h"

namespace qwen35 {

using kel::QuantType;

namespace {

// Tokens from which on rows are decoded to tiles; below, each row is multiplied as it is read.
constexpr size_t kTileTokens = 3;

// Weights of a piece: some ten microseconds of reading.
constexpr size_t kPieceBytes = 96 * 1024;

// Multiply-adds of a piece of tiles: about half a millisecond. A tile of a whole batch fits for
// matrices of up to 10,240 columns.
constexpr size_t kPieceProducts = size_t{20} << 20;

// Inputs that stay in L2 while tile after tile is multiplied with all of them.
constexpr size_t kCachedInputBytes = size_t{640} << 10;

// Tiles whose weights are on their way while one is multiplied: some microseconds of products.
constexpr size_t tilesAhead(size_t tokens) {
  return tokens < 8 ? 4 : 1;
}

// Rows that the kernels multiply side by side.
constexpr size_t kRowsAtOnce = 4;

// Pieces that every thread should find at least.
constexpr size_t kPiecesPerThread = 8;

constexpr size_t roundUp(size_t n, size_t multiple) {
  return (n + multiple - 1) / multiple * multiple;
}

// One matrix with what it takes to multiply its rows.
struct Matrix {
  const uint8_t* data;
  QuantType type;
  size_t rows;
  size_t cols;
  size_t stride;                          // bytes from row to row
  RowsProduct product;                    // of whole rows; null for types that are decoded first
  QuantisedRowsProduct quantisedProduct;  // null for all but the K formats
  QuantisedRowsProducts severalProduct;   // the same of several inputs; null in some tables
};

Matrix matrixOf(const KernelTable& kernels, const kel::TensorView& weights) {
  Matrix m{
      static_cast<const uint8_t*>(weights.data), weights.type, rowCount(weights), weights.dims[0],
      rowBytes(weights.type, weights.dims[0]),   nullptr,      nullptr,           nullptr};
  switch (m.type) {
    case QuantType::F32:
      m.product = kernels.rowsF32;
      break;
    case QuantType::BF16:
      m.product = kernels.rowsBf16;
      break;
    case QuantType::Q8_0:
      m.product = kernels.rowsQ80;
      break;
    case QuantType::Q4_K:
      m.quantisedProduct = kernels.rowsQ4K;
      m.severalProduct = kernels.severalQ4K;
      break;
    case QuantType::Q5_K:
      m.quantisedProduct = kernels.rowsQ5K;
      m.severalProduct = kernels.severalQ5K;
      break;
    default:
      break;
  }
  return m;
}

bool isKFormat(QuantType type) {
  return type == QuantType::Q4_K || type == QuantType::Q5_K;
}

bool multipliesTiles(QuantType type, size_t count, size_t cols, Arithmetic arithmetic) {
  if (isKFormat(type)) {
    return arithmetic == Arithmetic::Batch;
  }
  return count >= kTileTokens && cols % kLanes == 0;
}

// Whether tokens [first, first + count) could be quantised.
bool areQuantised(const MatmulInput& input, size_t first, size_t count) {
  const size_t groups = quantisedGroups(input.cols);
  const uint8_t* finite = input.finite + first * groups;
  return std::all_of(finite, finite + count * groups, [](uint8_t f) { return f != 0; });
}

// Rows [first, first + count) of a matrix, and where their products go.
struct Piece {
  const Matrix& matrix;
  const Matmul& target;
  size_t first;
  size_t count;

  const uint8_t* data() const { return matrix.data + first * matrix.stride; }

  void store(size_t token, const float* sums, size_t sumStride) const {
    float* y = target.y + token * target.yStride + first;
    for (size_t i = 0; i < count; ++i) {
      const float sum = sums[i * sumStride];
      y[i] = target.assigns ? sum : 0.0f + sum;
    }
  }
};

// Row by row for all tokens.
void multiplyTogether(const Piece& piece, const MatmulInput& input, const MatmulScratch& scratch) {
  piece.matrix.severalProduct(piece.data(), input.quantised, input.words, input.count, scratch.sums,
                              piece.count, input.cols);
  for (size_t token = 0; token < input.count; ++token) {
    piece.store(token, scratch.sums + token, input.count);
  }
}

// Row by row for each token: the rows are in L2 after the first.
void multiplyRows(const KernelTable& kernels, const Piece& piece, const MatmulInput& input,
                  const MatmulScratch& scratch) {
  const Matrix& m = piece.matrix;
  if (m.severalProduct != nullptr && input.count > 1 && areQuantised(input, 0, input.count)) {
    multiplyTogether(piece, input, scratch);
    return;
  }
  for (size_t token = 0; token < input.count; ++token) {
    const float* x = input.x + token * input.cols;
    if (m.product != nullptr) {
      m.product(piece.data(), x, scratch.sums, piece.count, m.cols);
    } else if (m.quantisedProduct != nullptr && areQuantised(input, token, 1)) {
      m.quantisedProduct(piece.data(), input.quantised + token * quantisedGroups(input.cols),
                         scratch.sums, piece.count, m.cols);
    } else {
      // An input that is too large or not finite: floats carry that on as they should.
      for (size_t i = 0; i < piece.count; ++i) {
        decodeRow(kernels, m.type, piece.data() + i * m.stride, scratch.rows, m.cols);
        scratch.sums[i] = kernels.dot(scratch.rows, x, m.cols);
      }
    }
    piece.store(token, scratch.sums, 1);
  }
}

void addAndClear(float* totals, float* parts, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    totals[i] += parts[i];
    parts[i] = 0.0f;
  }
}

// Rows [row, row + rows) of a piece from element `at` on, `len` elements of each.
struct Tile {
  size_t row;
  size_t rows;
  size_t at;
  size_t len;

  // Rows of a chunk lie the stride of the matrix apart.
  const uint8_t* weights(const Piece& piece) const {
    return piece.data() + row * piece.matrix.stride +
           at / kChunk * rowBytes(piece.matrix.type, kChunk);
  }
};

bool staysInCache(const MatmulInput& input) {
  return input.cols * input.count * sizeof(float) <= kCachedInputBytes;
}

// The tiles of a piece in the order of their products. While a chunk of the inputs is at hand it
// serves all rows; inputs that stay in cache let every sixteen rows be read to their ends.
class TileOrder {
 public:
  TileOrder(const Piece& piece, const MatmulInput& input)
      : rows(piece.count),
        cols(input.cols),
        together(staysInCache(input) ? kTileRows : piece.count) {}

  bool ended() const { return cols == 0 || first >= rows; }

  Tile tile() const {
    return {row, std::min(kTileRows, end() - row), at, std::min(kChunk, cols - at)};
  }

  void advance() {
    row += kTileRows;
    if (row < end()) {
      return;
    }
    row = first;
    at += kChunk;
    if (at < cols) {
      return;
    }
    at = 0;
    row = first = end();
  }

 private:
  size_t end() const { return std::min(first + together, rows); }

  size_t rows;
  size_t cols;
  size_t together;
  size_t first = 0;  // of the rows that are read to their ends together
  size_t row = 0;
  size_t at = 0;
};

// Asks for the weights of a tile: its rows lie too far apart for the processor to foresee them.
void prefetch(const Piece& piece, const Tile& tile) {
  constexpr size_t kLineBytes = 64;
  const uint8_t* chunk = tile.weights(piece);
  const size_t bytes = rowBytes(piece.matrix.type, tile.len);
  for (size_t r = 0; r < tile.rows; ++r, chunk += piece.matrix.stride) {
    for (size_t line = 0; line < bytes; line += kLineBytes) {
      __builtin_prefetch(chunk + line);
    }
  }
}

void decode(const KernelTable& kernels, const Piece& piece, const Tile& tile, float* decoded) {
  const uint8_t* chunk = tile.weights(piece);
  for (size_t r = 0; r < tile.rows; ++r, chunk += piece.matrix.stride) {
    decodeRow(kernels, piece.matrix.type, chunk, decoded + r * kChunk, tile.len);
  }
}

// Tile by tile for all tokens. The weights of later tiles arrive while one is multiplied.
void multiplyTiles(const KernelTable& kernels, const Piece& piece, const MatmulInput& input,
                   const MatmulScratch& scratch) {
  const size_t rowParts = input.count * kLanes;
  const size_t nParts = piece.count * rowParts;
  const bool severalSpans = input.cols > kSpan;
  std::fill_n(scratch.parts, nParts, 0.0f);
  if (severalSpans) {
    std::fill_n(scratch.totals, nParts, 0.0f);
  }
  TileOrder order(piece, input);
  TileOrder ahead = order;
  const auto prefetchNext = [&] {
    if (!ahead.ended()) {
      prefetch(piece, ahead.tile());
      ahead.advance();
    }
  };
  for (size_t i = 0; i <= tilesAhead(input.count); ++i) {
    prefetchNext();
  }
  for (; !order.ended(); order.advance()) {
    const Tile tile = order.tile();
    decode(kernels, piece, tile, scratch.rows);
    prefetchNext();
    float* parts = scratch.parts + tile.row * rowParts;
    kernels.addChunkProducts(scratch.rows, input.packed + tile.at * input.count, parts, tile.rows,
                             input.count, tile.len);
    const size_t taken = tile.at + tile.len;
    if (severalSpans && (taken % kSpan == 0 || taken == input.cols)) {
      addAndClear(scratch.totals + tile.row * rowParts, parts, tile.rows * rowParts);
    }
  }
  kernels.foldSums(severalSpans ? scratch.totals : scratch.parts, scratch.sums,
                   piece.count * input.count);
  for (size_t token = 0; token < input.count; ++token) {
    piece.store(token, scratch.sums + token, input.count);
  }
}

// Rows of a piece: whole tiles where there are enough of them for all threads.
size_t pieceRows(const Matrix& m, const MatmulInput& input, size_t nThreads) {
  const bool tiles = multipliesTiles(m.type, input.count, m.cols, input.arithmetic);
  const size_t bySize = tiles ? kPieceProducts / std::max<size_t>(m.cols * input.count, 1)
                              : kPieceBytes / std::max<size_t>(m.stride, 1);
  const size_t byThreads = m.rows / (nThreads * kPiecesPerThread);
  const size_t rows = std::min({bySize, byThreads, kMaxPieceRows});
  const size_t unit = rows >= kTileRows ? kTileRows : kRowsAtOnce;
  return std::max(rows / unit * unit, kRowsAtOnce);
}

}  // namespace

MatmulInput matmulInput(const float* x, size_t count, size_t cols, Arithmetic arithmetic,
                        std::span<const Matmul> users, const MatmulBuffers& buffers) {
  MatmulInput input{.x = x, .count = count, .cols = cols, .arithmetic = arithmetic};
  for (const Matmul& user : users) {
    if (multipliesTiles(user.weights->type, count, cols, arithmetic)) {
      input.packed = buffers.packed;
    } else if (isKFormat(user.weights->type)) {
      input.quantised = buffers.quantised;
      input.finite = buffers.finite;
      input.words = count > 1 ? buffers.words : nullptr;
    }
  }
  return input;
}

void prepareInput(const KernelTable& kernels, const MatmulInput& input, size_t token, size_t at,
                  size_t len) {
  const float* x = input.x + token * input.cols;
  if (input.packed != nullptr) {
    const auto [first, stride] = packedChunk(kernels, input.count, token);
    for (size_t i = at; i < at + len; i += kChunk) {
      float* packed = input.packed + i * input.count + first;
      const size_t end = std::min(i + kChunk, at + len);
      for (size_t eight = i; eight < end; eight += kLanes, packed += stride) {
        std::copy_n(x + eight, kLanes, packed);
      }
    }
  }
  if (input.quantised != nullptr) {
    const size_t firstGroup = token * quantisedGroups(input.cols);
    for (size_t i = at; i < at + len; i += kGroupLen) {
      const size_t group = firstGroup + i / kGroupLen;
      const size_t groupLen = std::min(kGroupLen, at + len - i);
      const bool isFinite = kernels.quantiseInput(x + i, groupLen, input.quantised + group);
      input.finite[group] = isFinite ? 1 : 0;
      if (input.words != nullptr && kernels.splitInput != nullptr) {
        for (size_t block = 0; block < groupLen / kChunk; ++block) {
          kernels.splitInput(input.quantised[group], block,
                             input.words[(i / kChunk + block) * input.count + token]);
        }
      }
    }
  }
}

void multiply(Team::Member& member, const KernelTable& kernels, const MatmulInput& input,
              std::span<const Matmul> products, const MatmulScratch& scratch) {
  struct Share {
    Matrix matrix;
    size_t rows;      // of a piece
    size_t endPiece;  // of all matrices up to this one
  };
  assert(products.size() <= kMaxMatmuls);
  Share shares[kMaxMatmuls];
  size_t pieces = 0;
  for (size_t i = 0; i < products.size(); ++i) {
    shares[i].matrix = matrixOf(kernels, *products[i].weights);
    shares[i].rows = pieceRows(shares[i].matrix, input, member.teamSize());
    pieces += roundUp(shares[i].matrix.rows, shares[i].rows) / shares[i].rows;
    shares[i].endPiece = pieces;
  }
  member.forEach(
      pieces,
      [&](size_t index) {
        size_t i = 0;
        while (index >= shares[i].endPiece) {
          ++i;
        }
        const Share& share = shares[i];
        const Matrix& m = share.matrix;
        const size_t first = (index - (i == 0 ? 0 : shares[i - 1].endPiece)) * share.rows;
        const Piece piece{m, products[i], first, std::min(share.rows, m.rows - first)};
        if (multipliesTiles(m.type, input.count, m.cols, input.arithmetic)) {
          multiplyTiles(kernels, piece, input, scratch);
        } else {
          multiplyRows(kernels, piece, input, scratch);
        }
      },
      input.packed == nullptr ? SIZE_MAX : 1);
}

}  // namespace qwen35
