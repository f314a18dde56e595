// Drive a block decoder or encoder over a row. Private to quant/.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kel::quant {

// Calls decodeBlock(const uint8_t* block, float* out) for each of the ceil(n / blockLen) blocks. A
// partial last block is decoded whole on the stack and copied as far as n reaches.
template <size_t blockLen, size_t blockBytes, typename DecodeBlock>
void decodeBlocks(const void* src, float* dst, size_t n, DecodeBlock decodeBlock) {
  const auto* block = static_cast<const uint8_t*>(src);
  for (; n >= blockLen; n -= blockLen) {
    decodeBlock(block, dst);
    block += blockBytes;
    dst += blockLen;
  }
  if (n > 0) {
    float whole[blockLen];
    decodeBlock(block, whole);
    std::memcpy(dst, whole, n * sizeof(float));
  }
}

// Calls encodeBlock(const float* x, uint8_t* block) for each of the ceil(n / blockLen) blocks; the
// last one is filled up with zeros, which count like any other element.
template <size_t blockLen, size_t blockBytes, typename EncodeBlock>
void encodeBlocks(const float* src, void* dst, size_t n, EncodeBlock encodeBlock) {
  auto* block = static_cast<uint8_t*>(dst);
  for (; n >= blockLen; n -= blockLen) {
    encodeBlock(src, block);
    src += blockLen;
    block += blockBytes;
  }
  if (n > 0) {
    float padded[blockLen] = {};
    std::copy_n(src, n, padded);
    encodeBlock(padded, block);
  }
}

}  // namespace kel::quant
