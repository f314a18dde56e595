// The vectorised kernels: one table of functions per instruction set, all with the same results.
//
// A contract here fixes the order of every rounding, so that any two tables give the same bits
// (of a NaN result only that it is a NaN). kernels_scalar.cpp states each contract as plain loops
// and is the reference. docs/kernels.md shows how to add a table.
//
// Dot product: how the products of one row and one input are added. It serves a single dot product,
// a matrix-vector product and any product of several rows with several inputs: each keeps one
// vector of kLanes accumulators per pair of row and input.
//   1. Element i belongs to lane i % kLanes. In rising i, chain[lane] = fma(w[i], x[i],
//      chain[lane]); the chains start at 0.
//   2. After every kChunk elements, and after the last, part[lane] += chain[lane] and the chains
//      restart at 0. After every kSpan elements, and after the last, total[lane] += part[lane] and
//      the parts restart at 0. Parts and totals start at 0.
//   3. The totals fold by halves: lane l + lane l + 4, then 2, then 1.
// The three levels are there for accuracy: the error of a sum grows with the number of additions
// into it, which are 32, 16 and 8 for 32,768 elements. A chunk is one super-block of the K formats.
//
// Quantised dot product: the product of one Q4_K or Q5_K row with a quantised input
// (quantised_input.h). The row's codes are multiplied with the input's limbs in integers, which are
// exact in any order; single precision enters once per super-block and lane. Element i of a
// sub-block belongs to lane i / 4.
//   1. For each limb p: n[p] = sum over the sub-blocks of scaleCode * code * limb[p], per lane.
//      block = fma(n[3], 65536, fma(n[2], 256, fma(n[0], 1/256, n[1]))), the integers taken to
//      single precision (they fit). chain[lane] = fma(block, superScale * inputScale, chain[lane]).
//   2. Minimums: sub-block s of every super-block belongs to lane s. In rising super-blocks,
//      low[lane] = fma(superMinimum * minimumCode, inputSum, low[lane]).
//   3. After every kSpan elements, and after the last, total[lane] += chain[lane] - low[lane] and
//      both restart at 0. The totals fold as above.
// Its error, against the row as the decoder gives it, is at most (n + k + 9) 2^-24 of the sum over
// elements of L * (|superScale| * scaleCode * code + |superMinimum| * minimumCode), where L is the
// largest |input| of the super-block, at least 2^-77, n the super-blocks of a span and k the spans.
// The sum of |weight * input| bounds nothing: an outlier may meet a weight of zero, and a weight be
// the small difference of its two parts. docs/kernels.md derives this.
//
// Exponential: exp(x) of one float, in double precision, each operation rounded to nearest.
//   1. d = x, but -110 where x < -110 and 100 where x > 100: the results are 0 and infinity.
//   2. t = fma(d, 0x1.71547652b82fep0, 1.5 * 2^52), where the factor is log2(e); k = t - 1.5 *
//   2^52,
//      an integer; r = fma(k, -0x1.62e42fefa39efp-1, d), where the factor is -ln(2).
//   3. p = 1/8!; for n = 7, 6, ... 0: p = fma(p, r, 1/n!), with the doubles nearest to the 1/n!.
//   4. The result is p * 2^k, which is exact, rounded to single precision once.
// Its error is below 0.51 units in the last place over all floats, subnormal results included; a
// NaN gives a NaN. docs/kernels.md derives this.
//
// The functions know nothing of threads: each writes its outputs alone, allocates nothing, and may
// be called from any thread. Weights may lie at any address; floats are aligned as floats.
#pragma once

#include <cstddef>

#include "qwen35/simd/quantised_input.h"

namespace qwen35 {

constexpr size_t kLanes = 8;
constexpr size_t kChunk = 256;
constexpr size_t kSpan = 4096;

// out[r] = row r times x, for `rows` consecutive rows of `cols` elements each; out is
// overwritten and overlaps no input. rows and cols may be 0 (an empty row gives 0).
using RowsProduct = void (*)(const void* weights, const float* x, float* out, size_t rows,
                             size_t cols);

// The same for a quantised input; cols is a multiple of 256.
using QuantisedRowsProduct = void (*)(const void* weights, const QuantisedInput* x, float* out,
                                      size_t rows, size_t cols);

// The same of several inputs: out[r * inputs + i], with the bits of the product of one input. x:
// [inputs][quantisedGroups(cols)]; words: [cols / 256][inputs].
using QuantisedRowsProducts = void (*)(const void* weights, const QuantisedInput* x,
                                       const InputWords* words, size_t inputs, float* out,
                                       size_t rows, size_t cols);

struct KernelTable {
  const char* name;  // "scalar", "avx2", ...

  // Inputs that addChunkProducts takes side by side: 1 or 2.
  size_t inputsSideBySide;

  // Sum of a[i] * b[i], n floats each. n % kLanes == 0: the dot product above. Otherwise one
  // running sum in index order: sum += a[i] * b[i] with both roundings, and sum = fma(a[i], b[i],
  // sum) for the last n % 16 elements.
  float (*dot)(const float* a, const float* b, size_t n);

  // Each row as `dot`: any cols.
  RowsProduct rowsF32;
  RowsProduct rowsBf16;

  // Dot products over the exact values of the decoder of quant/blocks.h; cols is a multiple of 32.
  RowsProduct rowsQ80;

  // Quantised dot products. The scales and minimums are those of the decoders of quant/blocks.h.
  QuantisedRowsProduct rowsQ4K;
  QuantisedRowsProduct rowsQ5K;

  // The same of several inputs, for which a row is unpacked once, and the words of super-block
  // `block` of a group for them. Null in tables that gain nothing by that.
  QuantisedRowsProducts severalQ4K;
  QuantisedRowsProducts severalQ5K;
  void (*splitInput)(const QuantisedInput& group, size_t block, InputWords& words);

  // Quantises an input for them: cols, a multiple of 256, floats into quantisedGroups(cols)
  // groups. False, with groups unspecified, when an element is not below kInputLimit in magnitude.
  bool (*quantiseInput)(const float* x, size_t cols, QuantisedInput* groups);

  // The exact values of bfloat16 numbers, at any address; any n.
  void (*decodeBf16)(const void* src, float* dst, size_t n);

  // The exact values of whole blocks, as the decoders of quant/blocks.h give them. n is a multiple
  // of the block length.
  void (*decodeQ80)(const void* src, float* dst, size_t n);
  void (*decodeQ4K)(const void* src, float* dst, size_t n);
  void (*decodeQ5K)(const void* src, float* dst, size_t n);

  // The dot product of several rows and several inputs, a chunk at a time, of which the first len
  // elements (a multiple of kLanes) count. rows: [nRows][kChunk]. inputs: nInputs * kChunk
  // floats, each input where packedChunk says. parts: [nRows][nInputs][kLanes]. The chains of the
  // chunk are added to the parts.
  void (*addChunkProducts)(const float* rows, const float* inputs, float* parts, size_t nRows,
                           size_t nInputs, size_t len);

  // out[i] = the kLanes sums at i, folded. sums: [n][kLanes].
  void (*foldSums)(const float* sums, float* out, size_t n);

  // acc[d] = acc[d] + (weights[p] * inverseSum) * values[p * stride + d], for p in rising order and
  // every d below n, each product and each sum rounded (nothing fused): the values of attended
  // positions under a softmax. weights: [rows], acc: [n], not overlapping; stride >= n.
  void (*addWeightedRows)(const float* weights, float inverseSum, const float* values,
                          size_t stride, float* acc, size_t rows, size_t n);

  // One update of a gated delta rule's state and its read-out. state: [keyDim][valueDim],
  // row i of key element i; q, k: [keyDim]; v: [valueDim]; v enters as the value and leaves as the
  // output. For every column j:
  //   s(i, j) = s(i, j) * decay for all i
  //   kv = fma(k[i], s(i, j), kv) from 0 in rising i;  u = (v[j] - kv) * beta
  //   s(i, j) = fma(k[i], u, s(i, j)) for all i
  //   o = fma(s(i, j), q[i], o) from 0 in rising i;    v[j] = scale * o
  // "Gated Delta Networks: Improving Mamba2 with Delta Rule" (2024), eq. 10, transposed.
  void (*deltaStep)(float* state, const float* q, const float* k, float* v, size_t keyDim,
                    size_t valueDim, float decay, float beta, float scale);

  // The next output of a causal convolution for each of `channels` channels, after which its inputs
  // move up. Channel c has nTaps >= 1 taps at taps + c * stride (stride >= nTaps). history:
  // [channels][nTaps - 1], earlier inputs from the oldest on; in, out: [channels]. For every c,
  // with its own tap and past:
  //   sum = fma(tap[i], past[i], sum) from 0 in rising i; out[c] = fma(tap[nTaps - 1], in[c], sum)
  //   past[i] = past[i + 1] in rising i; its last = in[c]
  // Nothing that is written overlaps anything else.
  void (*convolve)(const float* taps, size_t stride, size_t nTaps, float* history, const float* in,
                   float* out, size_t channels);

  // Elementwise, n of any size. Of the operations around the exponential each is rounded to single
  // precision. out may be any of the inputs; partly it overlaps none.

  // out[i] = exp(x[i] - shift).
  void (*exponentials)(const float* x, float shift, float* out, size_t n);

  // out[i] = x[i] / (1 + exp(-gates[i])).
  void (*sigmoidGate)(const float* x, const float* gates, float* out, size_t n);

  // out[i] = x[i] * (gates[i] / (1 + exp(-gates[i]))).
  void (*siluGate)(const float* x, const float* gates, float* out, size_t n);
};

// Where the chunk of an input lies among the packed inputs of addChunkProducts: groups of
// inputsSideBySide inputs take turns every kLanes elements; those left over follow, each [kChunk].
struct PackedChunk {
  size_t first;   // of the input's first element
  size_t stride;  // from its eight elements to the next eight
};

constexpr PackedChunk packedChunk(const KernelTable& kernels, size_t nInputs, size_t input) {
  const size_t group = kernels.inputsSideBySide;
  const size_t place = input % group;
  if (input < nInputs / group * group) {
    return {(input - place) * kChunk + place * kLanes, group * kLanes};
  }
  return {input * kChunk, kLanes};
}

}  // namespace qwen35
