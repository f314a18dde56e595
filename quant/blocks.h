// Block formats: half precision, decoders and encoders of every quantised format, and the storage
// sizes of quant/block_sizes.h.
//
// Layouts and formulas are stated beside each function's definition and in docs/block-formats.md;
// all multi-byte fields are little-endian. A row of n elements is ceil(n / block) consecutive
// blocks. Encoded buffers need no alignment. Every function is pure: no state, no allocation, no
// failure, any number of threads on disjoint buffers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "quant/block_sizes.h"

namespace kel::quant {

// IEEE 754 binary32 -> binary16, round to nearest, ties to even. NaN becomes a quiet NaN with the
// input's sign and no payload.
uint16_t f32ToF16(float x);

// IEEE 754 binary16 -> binary32, exact; a NaN keeps its payload.
float f16ToF32(uint16_t h);

// 6-bit scale and minimum of sub-block j (0..7) from the 12 packed bytes of Q4_K and Q5_K.
void getScaleMinK4(int j, const uint8_t* scales, uint8_t& sc, uint8_t& m);

// Decoders: src holds ceil(n / block) whole blocks; exactly n floats are written to dst.
void dequantQ40(const void* src, float* dst, size_t n);
void dequantQ80(const void* src, float* dst, size_t n);
void dequantQ4K(const void* src, float* dst, size_t n);
void dequantQ5K(const void* src, float* dst, size_t n);
void dequantQ6K(const void* src, float* dst, size_t n);

// Decodes floor(n / 256) whole super-blocks and leaves a shorter tail of dst untouched. The global
// scale is read from the first super-block alone and serves all of them.
void dequantQ8K(const void* src, float* dst, size_t n);

// Encoders: dst receives exactly quantizedBytes(type, n) bytes; only n elements of src are read,
// and those from n to the end of the last block count as 0. Infinities, and finite values so large
// that a scale overflows half precision, give infinite or NaN scales; an element whose code cannot
// be computed (NaN) takes the lowest code.
void quantQ40(const float* src, void* dst, size_t n);
void quantQ80(const float* src, void* dst, size_t n);
void quantQ4K(const float* src, void* dst, size_t n);
void quantQ5K(const float* src, void* dst, size_t n);
void quantQ6K(const float* src, void* dst, size_t n);

// Scales and minimums of eight sub-blocks into the 12 packed bytes that getScaleMinK4 reads.
// d and dmin receive the super-scales (largest scale / 63, largest minimum / 63).
void packScalesK(uint8_t* scales12, const float* subScales, const float* subMins, float& d,
                 float& dmin);

}  // namespace kel::quant
