// Matrix-vector products over weight tensors of any supported element type, spread over OpenMP
// threads.
//
// A weight matrix is a tensor whose first dimension is the row length (cols, the input width) and
// whose other dimensions multiply to the number of rows. Products are exact in order: the result
// does not depend on the number of threads or on the instruction set (qwen35/simd/kernel_table.h).
//
// Each product opens one parallel region over the whole team and must not be called from inside
// another one. Two host threads may run products at the same time: scratch belongs to the calling
// thread. Tensors must have passed the model's check: nothing is validated here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "container/tensor_view.h"

namespace qwen35 {

struct Model;

// Scratch rows, one per OpenMP thread.
using ThreadRows = std::vector<std::vector<float>>;

// dims[1] * ... * dims[rank - 1]; 1 for a tensor of fewer than two dimensions.
size_t rowCount(const kel::TensorView& weights);

// Bytes from one row of `cols` elements to the next, whole blocks only: a row length that is no
// multiple of the block is cut down. 0 for a type that has no product.
size_t rowBytes(kel::QuantType type, size_t cols);

// Writes the n values of one row, or of whole blocks of one, to dst: F32 copied, BF16 widened,
// Q8_0, Q4_K and Q5_K decoded. Any other type leaves dst as it is (deliberate: such models are
// refused before they run).
void decodeRow(kel::QuantType type, const void* row, float* dst, size_t n);

// The rows [begin, end) of thread t of nThreads: contiguous, in thread order, the first
// rows % nThreads ranges one row longer than the rest.
struct RowRange {
  size_t begin;
  size_t end;
};
RowRange threadRows(size_t rows, size_t nThreads, size_t t);

// Those of the calling thread in the parallel region that it is in.
RowRange rowsOfThisThread(size_t rows);

// y[r] += row r times x. weights: [rows][cols], row-major; x: [cols]; y: [rows]. Each row is
// summed as dotF32 does.
void matvecF32Add(const float* weights, const float* x, float* y, size_t rows, size_t cols);
void matvecBf16Add(const uint16_t* weights, const float* x, float* y, size_t rows, size_t cols);

// The same for a tensor of any type: y[r] += row r times x. Rows of Q4_K and Q5_K are summed as
// coded row sums (qwen35/simd/kernel_table.h), all others, and all when x has an element that is
// not finite or a DecodedRowSums lives, as dotF32(row r decoded, x). The model is not used.
//
// For types other than F32 and BF16 the calling thread's scratch is made ready first: when the
// count of its rows differs from the maximum of OpenMP threads, or its first row is shorter than
// cols, every row is replaced by cols zeros. Afterwards row t holds the last row of thread t's
// range, decoded. A type that has no product (F16, Q4_0, Q6_K, IQ4_XS) decodes nothing and is
// silently multiplied as whatever the scratch row holds.
void gemvRow(Model& m, const kel::TensorView* weights, const float* x, float* y);

// While one lives, gemvRow on the calling thread sums the rows of every type as dotF32(row decoded,
// x), as multiplyBlock does: for a token that is fed by itself, but whose place in a prompt gives
// it the arithmetic of blocks.
class DecodedRowSums {
 public:
  DecodedRowSums();
  ~DecodedRowSums();
  DecodedRowSums(const DecodedRowSums&) = delete;
  DecodedRowSums& operator=(const DecodedRowSums&) = delete;

 private:
  bool before;
};

// logits[r] = row r times x as gemvRow sums it, assigned, for the dims[1] rows of the output
// matrix; x: [dims[0]], logits: [dims[1]]. Keeps scratch rows of its own, under gemvRow's rules but
// for every element type.
void outputHead(const kel::TensorView* weights, const float* x, float* logits);

// The calling thread's scratch rows of gemvRow and of outputHead, for tests.
const ThreadRows& gemvScratchForTesting();
const ThreadRows& headScratchForTesting();

}  // namespace qwen35
