// A kernel table from a layer of vector operations (lanes.h).
#pragma once

#include "qwen35/simd/columns.h"
#include "qwen35/simd/convolution.h"
#include "qwen35/simd/exponential.h"
#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"
#include "qwen35/simd/quantised_rows.h"
#include "qwen35/simd/quantised_several.h"
#include "qwen35/simd/rows.h"
#include "qwen35/simd/tiles.h"

namespace qwen35 {

namespace {

template <typename V>
constexpr KernelTable laneTable(const char* name) {
  using H = typename V::Half;
  static_assert(V::kFloats == V::kGroups * kLanes && H::kGroups == 1);
  return {
      .name = name,
      .inputsSideBySide = V::kGroups,
      .dot = dot<H>,
      .rowsF32 = plainRows<H, F32<H>>,
      .rowsBf16 = plainRows<H, Bf16<H>>,
      .rowsQ80 = blockRows<H, Q80Rows<H>>,
      .rowsQ4K = quantisedRows<V, Q4K>,
      .rowsQ5K = quantisedRows<V, Q5K>,
      .severalQ4K = quantisedSeveral<V, Q4K>(),
      .severalQ5K = quantisedSeveral<V, Q5K>(),
      .splitInput = V::kTakesWords ? splitSuperBlock : nullptr,
      .quantiseInput = quantiseInput<V>,
      .decodeBf16 = decodeBf16<V>,
      .decodeQ80 = decodeQ80<V>,
      .decodeQ4K = decodeSuperBlocks<V, Q4K>,
      .decodeQ5K = decodeSuperBlocks<V, Q5K>,
      .addChunkProducts = addChunkProducts<V>,
      .foldSums = foldSums<V>,
      .addWeightedRows = addWeightedRows<V>,
      .deltaStep = deltaStep<V>,
      .convolve = convolve,
      .exponentials = exponentials<V>,
      .sigmoidGate = sigmoidGate<V>,
      .siluGate = siluGate<V>,
  };
}

}  // namespace

}  // namespace qwen35
