// What the fused products are measured against: each row decoded to floats, then multiplied.
#pragma once

#include <cstddef>
#include <cstdint>

// out[r] = row r times x, for Q4_K rows of `cols` elements; scratch: cols floats. Plain loops in a
// file compiled with the flags of the AVX2 kernels, so that the compiler may vectorise them.
void decodeThenDotQ4K(const uint8_t* weights, const float* x, float* out, float* scratch,
                      size_t rows, size_t cols);
