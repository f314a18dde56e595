// The layer of vector operations under the lane-generic kernels.
//
// A kernel is written once, as a template over a layer V, and instantiated per instruction set: by
// kernels_avx2.cpp over vector_avx2.h, and so on. A layer is a struct of static functions:
//
//   Half       The layer of one group of eight lanes: V itself where registers hold no more.
//   kGroups    Groups of kLanes floats in an F: 1 or 2.
//   kFloats    kGroups * kLanes.
//   kTileRows, kTileInputs
//              Rows and vectors of inputs whose chains of dot products fill the registers.
//   kHeadersAtOnce
//              Block headers of the K formats that are read before their products.
//   prefetch(address), prefetchToL2(address)
//              Ask for a line of memory. The address may be anything.
//
//   F          kFloats floats: zero, all (one float everywhere), load, store, add, sub, mul, div,
//              fma(a, b, c) = a * b + c rounded once. loadRepeated: eight floats, in every group.
//              atLeast(low, x) = x < low ? low : x and atMost(high, x) = x > high ? high : x, so
//              that a NaN stays.
//   D          As many doubles: toDouble, toFloat (rounded), allD, subD, fmaD. addExponent(p, t):
//              the bits of p, to which those of t are added as integers, 52 places up.
//   storeRounded(at, x)  Nearest integers, ties to even, of floats within the range of int32_t.
//
// and, where kGroups is 1 (V::Half):
//   fold(x)            The sum of eight lanes, by halves.
//   loadF32, loadBf16, loadSignedBytes
//              Eight weights from memory at any address.
//   loadHalf(at)       A half-precision number at any address. A NaN may come out quiet.
//   loadHalves(at, first, second)  Two that follow one another.
//   Codes(SubBlockCodes), scales(), minimums()
//              Eight scale codes, and eight minimum codes, as floats.
//
// Codes of the K formats, 32 to a sub-block:
//   Bytes      The codes of kSubBlocks (1 or 2) sub-blocks: loadBytes, lowNibbles, highNibbles.
//   loadFifths(at)     32 bytes, of which bit s is the fifth bit of a code of sub-block s, in
//              every half of Bytes.
//   withFifths<s>(codes, bits)
//              Adds 16 to those codes of sub-block s, and, in the second half, of sub-block s + 2,
//              whose fifth bit is set.
//   Levels<bits>(scale, min), store(codes, at)
//              Stores code * scale - min, rounded once, for the 32 codes of a V::Half::Bytes, at
//              most 4 or 5 bits each.
//   Scales(V::Half::Codes)
//              The scale codes of a super-block.
//   Sums       Integer sums, of every sub-block in Bytes eight lanes: zeroSums.
//   addProducts<s>(sums, low, high, lowLimbs, highLimbs, scales)
//              Adds scale * code * limb for every code: that of element i to lane i / 4 of its
//              sub-block. low: the codes of sub-block s, and of s + 2 in the second half; high:
//              those of s + 1, and of s + 3.
//   toFloats(sums)     The sums of each lane over the sub-blocks, as a V::Half::F.
//   kTakesWords        Whether products of words are worth their unpacking. If so, kSubBlocks is 2:
//   WordScales(V::Half::Codes), of<s>()
//              The scale code of sub-block s, and of s + 2 in the second half, in every even byte.
//   Words      The even or the odd elements of Bytes. evenWords(codes, scales) and oddWords(codes,
//              scales) are scale code times code. loadWords, addedWords; allWords: one word
//              everywhere.
//   addWordProducts(sums, words, inputs)
//              Adds word * input: every pair of words to one lane.
//
// Layers and kernels are in unnamed namespaces and take nothing from inline code of other headers:
// the linker could pick such a copy, compiled for wider instructions, for the whole program, and an
// older processor would meet it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

namespace {

inline constexpr size_t kLineBytes = 64;

// ---- the K formats

inline constexpr size_t kSubLen = 32;  // elements of a sub-block
inline constexpr size_t kSubBlocksOfBlock = kChunk / kSubLen;
inline constexpr size_t kHeaderBytes =
    16;  // super-scale, super-minimum, 12 bytes of scales and minimums

// The scale codes and minimum codes of a super-block, a byte each.
struct SubBlockCodes {
  uint64_t first;  // scales of sub-blocks 0 to 3 from the lowest byte on, then their minimums
  uint64_t last;   // the same of sub-blocks 4 to 7
};

// Four 6-bit fields to a word, in bytes: the first four scales and minimums are the low bits of
// words 0 and 1; of the last four, word 2 holds the low four bits (scales in its low nibbles,
// minimums in its high ones) and words 0 and 1 hold the two upper bits.
inline SubBlockCodes subBlockCodes(const uint8_t* super) {
  uint64_t words01;
  uint32_t word2;
  std::memcpy(&words01, super + 4, sizeof words01);
  std::memcpy(&word2, super + 12, sizeof word2);
  const uint64_t lowBits = (word2 & 0x0F0F0F0Fu) | static_cast<uint64_t>((word2 >> 4) & 0x0F0F0F0Fu)
                                                       << 32;
  return {words01 & 0x3F3F3F3F3F3F3F3Fu, lowBits | ((words01 >> 2) & 0x3030303030303030u)};
}

struct Q4K {
  static constexpr size_t kBlockBytes = 144;
  static constexpr int kBits = 4;
  static constexpr size_t kNibbles = kHeaderBytes;
};

struct Q5K {
  static constexpr size_t kBlockBytes = 176;
  static constexpr int kBits = 5;
  static constexpr size_t kNibbles = kHeaderBytes + kSubLen;
};

}  // namespace

}  // namespace qwen35
