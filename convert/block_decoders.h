// Decoders of block formats that source files use and the container has not, or orders otherwise.
//
// src: n / block length whole blocks at any alignment, fields little-endian; dst: n floats, n a
// multiple of the block length (32, or 256 for names with _K and _XS). d and m are half-precision
// scale and minimum; "nibble order" is the published one: the low nibbles of a block's 16 bytes
// hold elements 0 to 15, the high ones 16 to 31. Pure functions, any thread.
#pragma once

#include <cstddef>

namespace kel::convert {

void decodeQ40(const void* src, float* dst, size_t n);    // d, nibbles: (code - 8) * d
void decodeQ41(const void* src, float* dst, size_t n);    // d, m, nibbles: code * d + m
void decodeQ50(const void* src, float* dst, size_t n);    // d, fifth bits, nibbles: (code - 16) * d
void decodeQ51(const void* src, float* dst, size_t n);    // d, m, fifth bits, nibbles: code * d + m
void decodeQ2K(const void* src, float* dst, size_t n);    // 4-bit scale and minimum per 16
void decodeQ3K(const void* src, float* dst, size_t n);    // 6-bit signed scale per 16
void decodeIQ4NL(const void* src, float* dst, size_t n);  // d, nibbles: d * table[code]
void decodeIQ4XS(const void* src, float* dst, size_t n);  // the same with a 6-bit scale per 32
// Microscaling format of the OCP, version 1.0: a shared power of two, nibbles of 4-bit floats.
void decodeMXFP4(const void* src, float* dst, size_t n);

}  // namespace kel::convert
