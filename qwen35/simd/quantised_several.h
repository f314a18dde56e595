// Quantised dot products of rows with several inputs at once, for layers that multiply words well.
// A row is unpacked once, to words that hold scale code times code, and multiplied with all inputs.
//
// The integers are those of quantised_rows.h. Limbs 1 and 2 are one factor here: the sum of their
// products in a lane is below 2^31 (it takes 32 elements of a super-block, scale code times code is
// at most 1,953, and the two limbs at most 32,896), and that one integer taken to single precision
// is what fma(n[2], 256, n[1]) rounds to.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"
#include "qwen35/simd/quantised_rows.h"

namespace qwen35 {

namespace {

// Rows whose words fill the registers, so that each load of an input serves them all.
inline constexpr size_t kRowsInWords = 2;

// Inputs that a row is unpacked for, and rows that share a super-block of them: the words of these
// inputs and the sums of those rows stay in L1.
inline constexpr size_t kInputsTogether = 8;
inline constexpr size_t kRowsTogether = 16;

inline void splitSuperBlock(const QuantisedInput& group, size_t block, InputWords& words) {
  for (size_t pair = 0; pair < 4; ++pair) {
    const auto& limbs = group.limbs[block][pair];
    for (size_t half = 0; half < 2; ++half) {
      for (size_t i = 0; i < kSubLen; ++i) {
        const size_t at = half * kSubLen / 2 + i / 2;
        const int lower = limbs[2][half][i] * 256 + limbs[1][half][i];
        const int upper = +limbs[3][half][i];
        words.middle[pair][i % 2][at] = static_cast<int16_t>(lower + kMiddleShift);
        words.upper[pair][i % 2][at] = static_cast<int16_t>(upper);
      }
    }
  }
}

// One super-block of a row.
template <typename V>
struct UnpackedRow {
  typename V::Words words[4][2];  // [pair][odd], as those of inputs
  typename V::Sums shift;         // takes kMiddleShift back
  float superScale;
  typename V::Half::F minimums;
};

template <typename V, typename Format, int kBytes>
[[gnu::always_inline]] inline void unpackBytes(const uint8_t* super,
                                               const typename V::WordScales& scales,
                                               UnpackedRow<V>& out) {
  const CodeBytes<V, Format, kBytes> codes(super);
  const typename V::Bytes lowScales = scales.template of<codes.kSub>();
  const typename V::Bytes highScales = scales.template of<codes.kSub + 1>();
  out.words[2 * kBytes][0] = V::evenWords(codes.low, lowScales);
  out.words[2 * kBytes][1] = V::oddWords(codes.low, lowScales);
  out.words[2 * kBytes + 1][0] = V::evenWords(codes.high, highScales);
  out.words[2 * kBytes + 1][1] = V::oddWords(codes.high, highScales);
}

template <typename V, typename Format>
[[gnu::always_inline]] inline void unpackRow(const uint8_t* super, UnpackedRow<V>& out) {
  using H = typename V::Half;
  static_assert(V::kSubBlocks == 2);
  const typename H::Codes codes(subBlockCodes(super));
  float superMinimum;
  H::loadHalves(super, out.superScale, superMinimum);
  out.minimums = H::mul(H::all(superMinimum), codes.minimums());
  const typename V::WordScales scales(codes);
  unpackBytes<V, Format, 0>(super, scales, out);
  unpackBytes<V, Format, 1>(super, scales, out);
  // Eight words of at most 1,953: their sum fits.
  typename V::Words sum = V::addedWords(out.words[0][0], out.words[0][1]);
#pragma GCC unroll 4
  for (size_t pair = 1; pair < 4; ++pair) {
    sum = V::addedWords(sum, V::addedWords(out.words[pair][0], out.words[pair][1]));
  }
  out.shift = V::addWordProducts(V::zeroSums(), sum, V::allWords(-kMiddleShift));
}

// The sums in progress of a row and an input.
template <typename V>
struct RowSums {
  using H = typename V::Half;

  void add(const UnpackedRow<V>& row, typename H::F value, const QuantisedInput& group,
           size_t block) {
    chain = H::fma(value, H::all(row.superScale * group.scales[block]), chain);
    low = H::fma(row.minimums, H::load(group.sums[block]), low);
  }

  void finishSpan() {
    total = H::add(total, H::sub(chain, low));
    chain = H::zero();
    low = H::zero();
  }

  typename H::F chain = H::zero();
  typename H::F low = H::zero();
  typename H::F total = H::zero();
};

// One super-block of the inputs of a product, at most kInputsTogether. Those that keep the last
// limb, which words leave out, come last: an outlier or two rule few super-blocks.
class InputBlocks {
 public:
  struct One {
    const QuantisedInput* group;
    const InputWords* words;
    size_t input;
  };

  InputBlocks(const QuantisedInput* groups, size_t groupStride, const InputWords* words,
              size_t inputs, size_t blockOfGroup)
      : block(blockOfGroup) {
    size_t last = inputs;
    for (size_t i = 0; i < inputs; ++i) {
      const One one{groups + i * groupStride, words + i, i};
      if (one.group->keepsLastLimb[block]) {
        each[--last] = one;
      } else {
        each[inWords++] = one;
      }
    }
    count = inputs;
  }

  One each[kInputsTogether];
  size_t inWords = 0;
  size_t count;
  size_t block;
};

// kRows rows and one input, in words.
template <typename V, size_t kRows>
[[gnu::always_inline]] inline void addWords(const UnpackedRow<V>* rows, const InputBlocks::One& one,
                                            size_t block, RowSums<V> (*sums)[kInputsTogether]) {
  using H = typename V::Half;
  typename V::Sums middle[kRows];
  typename V::Sums upper[kRows];
  for (size_t r = 0; r < kRows; ++r) {
    middle[r] = rows[r].shift;
    upper[r] = V::zeroSums();
  }
#pragma GCC unroll 4
  for (size_t pair = 0; pair < 4; ++pair) {
#pragma GCC unroll 2
    for (size_t odd = 0; odd < 2; ++odd) {
      const typename V::Words m = V::loadWords(one.words->middle[pair][odd]);
      const typename V::Words u = V::loadWords(one.words->upper[pair][odd]);
#pragma GCC unroll 2
      for (size_t r = 0; r < kRows; ++r) {
        middle[r] = V::addWordProducts(middle[r], rows[r].words[pair][odd], m);
        upper[r] = V::addWordProducts(upper[r], rows[r].words[pair][odd], u);
      }
    }
  }
  for (size_t r = 0; r < kRows; ++r) {
    const typename H::F value =
        H::fma(V::toFloats(upper[r]), H::all(65536.0f), V::toFloats(middle[r]));
    sums[r][one.input].add(rows[r], value, *one.group, block);
  }
}

// Not inlined: the words of rows are to keep their registers.
template <typename V, typename Format>
[[gnu::noinline]] typename V::Half::F valueWithLastLimb(const uint8_t* super,
                                                        const typename V::Scales& scales,
                                                        Limbs limbs) {
  return blockValue<V, Format, true>(super, scales, limbs);
}

template <typename V, typename Format>
void addWithLastLimb(const uint8_t* super, const UnpackedRow<V>& row, const InputBlocks::One& one,
                     size_t block, RowSums<V>& sums) {
  const typename V::Scales scales{typename V::Half::Codes(subBlockCodes(super))};
  sums.add(row, valueWithLastLimb<V, Format>(super, scales, one.group->limbs[block]), *one.group,
           block);
}

// One super-block of kRows rows, `stride` bytes apart.
template <typename V, typename Format, size_t kRows>
void addSuperBlock(const uint8_t* super, size_t stride, const InputBlocks& inputs,
                   RowSums<V> (*sums)[kInputsTogether]) {
  UnpackedRow<V> rows[kRows];
#pragma GCC unroll 2
  for (size_t r = 0; r < kRows; ++r) {
    unpackRow<V, Format>(super + r * stride, rows[r]);
    const auto next = reinterpret_cast<uintptr_t>(super) + r * stride + Format::kBlockBytes;
    for (size_t line = 0; line < Format::kBlockBytes; line += kLineBytes) {
      V::prefetch(next + line);
    }
  }
  for (size_t i = 0; i < inputs.inWords; ++i) {
    addWords<V, kRows>(rows, inputs.each[i], inputs.block, sums);
  }
  for (size_t i = inputs.inWords; i < inputs.count; ++i) {
    for (size_t r = 0; r < kRows; ++r) {
      addWithLastLimb<V, Format>(super + r * stride, rows[r], inputs.each[i], inputs.block,
                                 sums[r][inputs.each[i].input]);
    }
  }
}

// Inputs [first, first + count) of one product, at most kInputsTogether.
struct SeveralInputs {
  const QuantisedInput* x;  // [all][groups]
  const InputWords* words;  // [super-blocks][all]
  size_t groups;
  size_t all;
  size_t first;
  size_t count;

  InputBlocks at(size_t block) const {
    return {x + first * groups + block / kGroupSuperBlocks, groups, words + block * all + first,
            count, block % kGroupSuperBlocks};
  }
};

// `rows` rows, at most kRowsTogether; out: [rows][inputs.all].
template <typename V, typename Format>
void severalTile(const uint8_t* first, size_t stride, size_t rows, size_t blocks,
                 const SeveralInputs& inputs, float* out) {
  RowSums<V> sums[kRowsTogether][kInputsTogether];
  for (size_t b = 0; b < blocks; ++b) {
    const InputBlocks inputBlocks = inputs.at(b);
    const uint8_t* super = first + b * Format::kBlockBytes;
    size_t r = 0;
    for (; r + kRowsInWords <= rows; r += kRowsInWords, super += kRowsInWords * stride) {
      addSuperBlock<V, Format, kRowsInWords>(super, stride, inputBlocks, sums + r);
    }
    if (r < rows) {
      addSuperBlock<V, Format, 1>(super, stride, inputBlocks, sums + r);
    }
    if ((b + 1) % kSpanBlocks == 0 || b + 1 == blocks) {
      for (r = 0; r < rows; ++r) {
        for (size_t i = 0; i < inputs.count; ++i) {
          sums[r][i].finishSpan();
        }
      }
    }
  }
  for (size_t r = 0; r < rows; ++r) {
    for (size_t i = 0; i < inputs.count; ++i) {
      out[r * inputs.all + i] = V::Half::fold(sums[r][i].total);
    }
  }
}

template <typename V, typename Format>
void severalRows(const void* weights, const QuantisedInput* x, const InputWords* words,
                 size_t inputs, float* out, size_t rows, size_t cols) {
  const auto* row = static_cast<const uint8_t*>(weights);
  const size_t blocks = cols / kChunk;
  const size_t groups = (blocks + kGroupSuperBlocks - 1) / kGroupSuperBlocks;
  const size_t stride = blocks * Format::kBlockBytes;
  for (size_t r = 0; r < rows; r += kRowsTogether, row += kRowsTogether * stride) {
    const size_t nRows = rows - r < kRowsTogether ? rows - r : kRowsTogether;
    for (size_t i = 0; i < inputs; i += kInputsTogether) {
      const size_t count = inputs - i < kInputsTogether ? inputs - i : kInputsTogether;
      const SeveralInputs taken{x, words, groups, inputs, i, count};
      severalTile<V, Format>(row, stride, nRows, blocks, taken, out + r * inputs + i);
    }
  }
}

template <typename V, typename Format>
constexpr QuantisedRowsProducts quantisedSeveral() {
  if constexpr (V::kTakesWords) {
    return severalRows<V, Format>;
  } else {
    return nullptr;
  }
}

}  // namespace

}  // namespace qwen35
