// Matrix-vector products by themselves, over weight tensors of any element type, spread over OpenMP
// threads: what a product is, in its simplest form. The forward pass has products of its own
// (qwen35/matmul.h).
//
// Each row is summed as dotF32 sums it: the result does not depend on the number of threads or on
// the instruction set (qwen35/simd/kernel_table.h). Each product opens one parallel region over the
// whole team. Two models may be multiplied on two host threads at the same time. Tensors must have
// passed the model's check: nothing is validated here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qwen35/model.h"

namespace qwen35 {

// The rows [begin, end) of thread t of nThreads: contiguous, in thread order, the first
// rows % nThreads ranges one row longer than the rest.
struct RowRange {
  size_t begin;
  size_t end;
};
RowRange threadRows(size_t rows, size_t nThreads, size_t t);

// y[r] += row r times x. weights: [rows][cols], row-major; x: [cols]; y: [rows].
void matvecF32Add(const float* weights, const float* x, float* y, size_t rows, size_t cols);
void matvecBf16Add(const uint16_t* weights, const float* x, float* y, size_t rows, size_t cols);

// The same for a tensor of any type: y[r] += dotF32(row r decoded, x).
//
// For types other than F32 and BF16 the model's scratch rows (m.gemvRows) are made ready first:
// when their count differs from the maximum of OpenMP threads, or the first row is shorter than
// cols, every row is replaced by cols zeros. Afterwards row t holds the last row of thread t's
// range, decoded. A type without matmul (F16, Q4_0, Q6_K, IQ4_XS) decodes nothing and is silently
// multiplied as whatever the scratch row holds.
void gemvRow(Model& m, const kel::TensorView* weights, const float* x, float* y);

// logits[r] = dotF32(row r decoded, x), assigned, for the nVocab rows of m.tokEmbd. x: nEmbd
// floats; logits: nVocab floats. Keeps scratch rows of its own (m.headRows), under gemvRow's rules
// but for every element type.
void outputHead(Model& m, const float* x, float* logits);

}  // namespace qwen35
