// Products of a weight matrix with a block of input vectors: every weight is read and decoded once
// for the whole block. Threads, order and tensors are as in qwen35/products.h.
#pragma once

#include <cstddef>
#include <vector>

#include "container/tensor_view.h"
#include "qwen35/aligned_floats.h"

namespace qwen35 {

// The inputs of a block, laid out chunk by chunk (kChunk elements) for the products.
class BlockInputs {
 public:
  // x: [count][cols], which stays in place while this is used. Overwrites what was held.
  void assign(const float* x, size_t count, size_t cols);

  size_t count() const { return nInputs; }
  size_t cols() const { return nCols; }
  const float* input(size_t i) const { return source + i * nCols; }

  // [count][kChunk] of the chunk that starts at element `at`; cols is a multiple of kLanes.
  const float* chunk(size_t at) const { return packed.data() + at * nInputs; }

 private:
  const float* source = nullptr;
  AlignedFloats packed;
  size_t nInputs = 0;
  size_t nCols = 0;
};

// y[i][r] = 0 + dotF32(row r decoded, input i), for every row of the matrix: what matvecF32Add,
// matvecBf16Add and gemvRow of Q8_0 add, bit for bit; gemvRow of Q4_K and Q5_K rounds otherwise.
// The sums do not depend on the other inputs of the block. y: [inputs.count()][rows].
void multiplyBlock(const kel::TensorView& weights, const BlockInputs& inputs, float* y);

}  // namespace qwen35
