// Dot products of several rows and several inputs, and the decoding of rows for them,
// lane-generic.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"
#include "qwen35/simd/rows.h"

namespace qwen35 {

namespace {

// Rows that a caller multiplies together at least, as a rule: the inputs that come next arrive
// while these pass.
inline constexpr size_t kRowsPerFetch = 16;

// The chains of R rows and P vectors of inputs, each of V::kGroups inputs side by side. parts:
// those of the first row and input; rows of parts are partStride floats apart. ahead: address of
// inputs that come next, of which this asks for its share; behind the last inputs it points at
// nothing.
template <typename V, size_t R, size_t P>
void addTile(const float* rows, const float* inputs, float* parts, size_t partStride, size_t len,
             uintptr_t ahead) {
  constexpr size_t kVectorFloats = kChunk * V::kGroups;  // of an input vector's chunk
  constexpr size_t kTilesPerFetch = kRowsPerFetch / V::kTileRows;
  constexpr size_t kLineFloats = kLineBytes / sizeof(float);
  constexpr size_t kElementsPerFetch = kTilesPerFetch * kLineFloats / V::kGroups;
  typename V::F chain[R][P];
#pragma GCC unroll 8
  for (size_t r = 0; r < R; ++r) {
#pragma GCC unroll 4
    for (size_t p = 0; p < P; ++p) {
      chain[r][p] = V::zero();
    }
  }
  for (size_t i = 0; i < len; i += kLanes) {
    if (i % kElementsPerFetch == 0) {
#pragma GCC unroll 4
      for (size_t p = 0; p < P; ++p) {
        V::prefetch(ahead +
                    (p * kVectorFloats + i / kElementsPerFetch * kLineFloats) * sizeof(float));
      }
    }
    typename V::F input[P];
#pragma GCC unroll 4
    for (size_t p = 0; p < P; ++p) {
      input[p] = V::load(inputs + p * kVectorFloats + i * V::kGroups);
    }
#pragma GCC unroll 8
    for (size_t r = 0; r < R; ++r) {
      const typename V::F row = V::loadRepeated(rows + r * kChunk + i);
#pragma GCC unroll 4
      for (size_t p = 0; p < P; ++p) {
        chain[r][p] = V::fma(row, input[p], chain[r][p]);
      }
    }
  }
#pragma GCC unroll 8
  for (size_t r = 0; r < R; ++r) {
#pragma GCC unroll 4
    for (size_t p = 0; p < P; ++p) {
      float* part = parts + r * partStride + p * V::kFloats;
      V::store(part, V::add(V::load(part), chain[r][p]));
    }
  }
}

// All rows with P vectors of inputs.
template <typename V, size_t P>
void addRows(const float* rows, const float* inputs, float* parts, size_t partStride, size_t nRows,
             size_t len) {
  constexpr size_t kVectorBytes = kChunk * V::kGroups * sizeof(float);
  constexpr size_t kTilesPerFetch = kRowsPerFetch / V::kTileRows;
  const auto next = reinterpret_cast<uintptr_t>(inputs) + P * kVectorBytes;
  size_t r = 0;
  for (; nRows - r >= V::kTileRows; r += V::kTileRows) {
    const size_t tile = r / V::kTileRows % kTilesPerFetch;
    addTile<V, V::kTileRows, P>(rows + r * kChunk, inputs, parts + r * partStride, partStride, len,
                                next + tile * (kVectorBytes / kTilesPerFetch));
  }
  constexpr size_t kFew = V::kTileRows > 4 ? 4 : 1;
  for (; nRows - r >= kFew; r += kFew) {
    addTile<V, kFew, P>(rows + r * kChunk, inputs, parts + r * partStride, partStride, len, next);
  }
  for (; r < nRows; ++r) {
    addTile<V, 1, P>(rows + r * kChunk, inputs, parts + r * partStride, partStride, len, next);
  }
}

// `vectors` of inputs, V::kGroups side by side in each.
template <typename V>
void addVectors(const float* rows, const float* inputs, float* parts, size_t partStride,
                size_t nRows, size_t vectors, size_t len) {
  constexpr size_t kVectorFloats = kChunk * V::kGroups;
  size_t p = 0;
  for (; vectors - p >= V::kTileInputs; p += V::kTileInputs) {
    addRows<V, V::kTileInputs>(rows, inputs + p * kVectorFloats, parts + p * V::kFloats, partStride,
                               nRows, len);
  }
  if (vectors - p == 2) {
    addRows<V, 2>(rows, inputs + p * kVectorFloats, parts + p * V::kFloats, partStride, nRows, len);
  } else if (vectors - p == 1) {
    addRows<V, 1>(rows, inputs + p * kVectorFloats, parts + p * V::kFloats, partStride, nRows, len);
  }
}

template <typename V>
void addChunkProducts(const float* rows, const float* inputs, float* parts, size_t nRows,
                      size_t nInputs, size_t len) {
  static_assert(V::kTileInputs <= 3, "what is left over is one or two vectors");
  const size_t partStride = nInputs * kLanes;
  const size_t vectors = nInputs / V::kGroups;
  addVectors<V>(rows, inputs, parts, partStride, nRows, vectors, len);
  if constexpr (V::kGroups > 1) {
    const size_t done = vectors * V::kGroups;
    addVectors<typename V::Half>(rows, inputs + done * kChunk, parts + done * kLanes, partStride,
                                 nRows, nInputs - done, len);
  }
}

template <typename V>
void foldSums(const float* sums, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = V::Half::fold(V::Half::load(sums + i * kLanes));
  }
}

template <typename V>
void decodeBf16(const void* src, float* dst, size_t n) {
  using Element = Bf16<typename V::Half>;
  const auto* at = static_cast<const uint8_t*>(src);
  size_t i = 0;
  for (; n - i >= kLanes; i += kLanes) {
    V::Half::store(dst + i, Element::eight(at + i * Element::kBytes));
  }
  for (; i < n; ++i) {
    dst[i] = Element::one(at + i * Element::kBytes);
  }
}

template <typename V>
void decodeQ80(const void* src, float* dst, size_t n) {
  using H = typename V::Half;
  constexpr size_t kBlockBytes = 34;
  const auto* block = static_cast<const uint8_t*>(src);
  for (size_t at = 0; at < n; at += kSubLen, block += kBlockBytes) {
    const typename H::F scale = H::all(H::loadHalf(block));
    for (size_t i = 0; i < kSubLen; i += kLanes) {
      H::store(dst + at + i, H::mul(H::loadSignedBytes(block + 2 + i), scale));
    }
  }
}

// Sub-blocks kSub and kSub + 1: the low nibbles of 32 bytes and the high ones.
template <typename V, typename Format, int kSub>
void decodePair(const uint8_t* super, const float* scales, const float* mins, float* dst) {
  using H = typename V::Half;
  using Levels = typename V::template Levels<Format::kBits>;
  const typename H::Bytes nibbles = H::loadBytes(super + Format::kNibbles + kSub / 2 * kSubLen);
  typename H::Bytes low = H::lowNibbles(nibbles);
  typename H::Bytes high = H::highNibbles(nibbles);
  if constexpr (Format::kBits == 5) {
    const typename H::Bytes bits = H::loadFifths(super + kHeaderBytes);
    low = H::template withFifths<kSub>(low, bits);
    high = H::template withFifths<kSub + 1>(high, bits);
  }
  Levels(scales[kSub], mins[kSub]).store(low, dst + kSub * kSubLen);
  Levels(scales[kSub + 1], mins[kSub + 1]).store(high, dst + (kSub + 1) * kSubLen);
}

// Elements are then read from memory, which costs the vector units nothing; left alone, compilers
// take them out of the registers that were stored, by shuffles.
template <size_t n>
void keepInMemory(float (&values)[n]) {
  __asm__("" : "+m"(values));
}

template <typename V, typename Format>
void decodeSuperBlocks(const void* src, float* dst, size_t n) {
  using H = typename V::Half;
  const auto* super = static_cast<const uint8_t*>(src);
  for (size_t at = 0; at < n; at += kChunk, super += Format::kBlockBytes) {
    float superScale;
    float superMinimum;
    H::loadHalves(super, superScale, superMinimum);
    const typename H::Codes codes(subBlockCodes(super));
    alignas(32) float scales[kSubBlocksOfBlock];
    alignas(32) float mins[kSubBlocksOfBlock];
    H::store(scales, H::mul(H::all(superScale), codes.scales()));
    H::store(mins, H::mul(H::all(superMinimum), codes.minimums()));
    keepInMemory(scales);
    keepInMemory(mins);
    decodePair<V, Format, 0>(super, scales, mins, dst + at);
    decodePair<V, Format, 2>(super, scales, mins, dst + at);
    decodePair<V, Format, 4>(super, scales, mins, dst + at);
    decodePair<V, Format, 6>(super, scales, mins, dst + at);
  }
}

}  // namespace

}  // namespace qwen35
