// Products of weight matrices with the inputs of a pass: one or several tokens, every weight read
// once for all of them.
//
// Two arithmetics. Both sum the rows of F32, BF16 and Q8_0 as KernelTable's dot product of the
// decoded row. They differ for Q4_K and Q5_K: Batch sums the decoded row in floats, SingleToken
// takes the quantised dot product, which is faster where a row meets few inputs. A token's sums
// depend on the arithmetic alone: not on the other tokens, on threads or on the instruction set.
//
// Everything here works on memory that its caller provides: nothing is allocated, nothing is
// thrown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "container/tensor_view.h"
#include "qwen35/simd/kernel_table.h"
#include "qwen35/team.h"

namespace qwen35 {

enum class Arithmetic { Batch, SingleToken };

// The inputs of one or more matrices: `count` vectors of `cols` floats, and the other forms in
// which matrices read them.
struct MatmulInput {
  const float* x = nullptr;  // [count][cols]
  size_t count = 0;
  size_t cols = 0;
  Arithmetic arithmetic = Arithmetic::Batch;

  // Chunk by chunk, [chunks][count][kChunk]; null where no matrix multiplies tiles.
  float* packed = nullptr;

  // [count][quantisedGroups(cols)], and whether each group could be quantised; null where no matrix
  // reads them.
  QuantisedInput* quantised = nullptr;
  uint8_t* finite = nullptr;

  // Their words, [chunks][count]; null where `quantised` is, and for one vector.
  InputWords* words = nullptr;
};

// Room for those forms, shared by all products of a pass: they follow one another.
struct MatmulBuffers {
  float* packed;              // [chunks of the widest input][tokens][kChunk]
  QuantisedInput* quantised;  // [tokens][groups of the widest input]
  uint8_t* finite;            // the same
  InputWords* words;          // [chunks of the widest input][tokens]
};

// One member's own scratch. Aligned to 64 bytes.
struct MatmulScratch {
  float* rows;    // [kTileRows][kChunk], and at least one row of the widest matrix
  float* parts;   // [kMaxPieceRows][tokens][kLanes]
  float* totals;  // the same
  float* sums;    // [kMaxPieceRows][tokens]
};

// Matrices that share an input.
constexpr size_t kMaxMatmuls = 4;

// Rows that are decoded and multiplied together: their chunk takes half of L1.
constexpr size_t kTileRows = 16;

// Rows of a piece at most: a chunk of the inputs is read once for all of them and stays, with their
// parts, in L2.
constexpr size_t kMaxPieceRows = 64;

// A matrix with the place of its product: y[token * yStride + row].
struct Matmul {
  const kel::TensorView* weights;
  float* y;
  size_t yStride;
  // The sum as it is, rather than added to a zero, which turns a -0 into +0. The output head is
  // assigned, all other products are added to zeroed buffers.
  bool assigns = false;
};

// An input as its matrices need it: x with the forms that prepareInput has to fill.
MatmulInput matmulInput(const float* x, size_t count, size_t cols, Arithmetic arithmetic,
                        std::span<const Matmul> users, const MatmulBuffers& buffers);

// Fills the other forms of elements [at, at + len) of one token. at is a multiple of kGroupLen; len
// is kGroupLen or all that follows, or ends the vector after several groups. Pieces of different
// tokens or elements may be filled at the same time.
void prepareInput(const KernelTable& kernels, const MatmulInput& input, size_t token, size_t at,
                  size_t len);

// y = row times input, for every row of every matrix (at most kMaxMatmuls) and every token: one
// step of the team, which all of its members come to. scratch: the calling member's.
void multiply(Team::Member& member, const KernelTable& kernels, const MatmulInput& input,
              std::span<const Matmul> products, const MatmulScratch& scratch);

}  // namespace qwen35
