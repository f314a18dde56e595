// Weight tensors as matrices, and the decoding of their rows.
//
// A weight matrix is a tensor whose first dimension is the row length (cols, the input width) and
// whose other dimensions multiply to the number of rows. Rows follow one another without a gap.
// Tensors must have passed the model's check (qwen35/run_check.h): nothing is validated here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "container/tensor_view.h"
#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

// dims[1] * ... * dims[rank - 1]; 1 for a tensor of fewer than two dimensions.
size_t rowCount(const kel::TensorView& weights);

// Bytes from one row of `cols` elements to the next, whole blocks only: a row length that is no
// multiple of the block is cut down. 0 for a type without matmul.
size_t rowBytes(kel::QuantType type, size_t cols);

// Writes the n values of one row, or of whole blocks of one, to dst: F32 copied, BF16 widened,
// Q8_0, Q4_K and Q5_K decoded. Any other type leaves dst as it is (deliberate: such models are
// refused before they run).
void decodeRow(const KernelTable& kernels, kel::QuantType type, const void* row, float* dst,
               size_t n);

}  // namespace qwen35
