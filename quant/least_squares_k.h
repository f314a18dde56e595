// Encoders of Q4_K and Q5_K that search for the least squared error, for what is encoded once and
// read often. quantQ4K and quantQ5K (quant/blocks.h) take the range of the elements as it is: they
// are some times faster and less exact.
//
// dst receives exactly quantizedBytes(type, n) bytes, which dequantQ4K and dequantQ5K read; only n
// elements of src are read, and those from n to the end of the last super-block count as 0. The
// bytes are the same on every processor and from every compiler. Of finite elements every decoded
// value is finite, and no super-block has a larger squared error than the plain encoder's; one that
// holds NaN or an infinity gets the plain encoder's bytes. Pure functions, any thread.
#pragma once

#include <cstddef>

namespace kel::quant {

void leastSquaresQ4K(const float* src, void* dst, size_t n);
void leastSquaresQ5K(const float* src, void* dst, size_t n);

}  // namespace kel::quant
