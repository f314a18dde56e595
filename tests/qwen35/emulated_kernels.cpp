#include "tests/qwen35/test_kernels.h"

#include "qwen35/simd/lane_table.h"
#include "tests/qwen35/vector_emulated.h"

namespace qwen35 {

const KernelTable& emulatedAvx2Kernels() {
  static constexpr KernelTable kTable = laneTable<Emulated<1, 4, 3, 16>>("emulated-avx2");
  return kTable;
}

const KernelTable& emulatedAvx512Kernels() {
  static constexpr KernelTable kTable = laneTable<Emulated<2, 8, 3, 1>>("emulated-avx512");
  return kTable;
}

const KernelTable& emulatedOddKernels() {
  static constexpr KernelTable kTable = laneTable<Emulated<1, 2, 2, 3>>("emulated-odd");
  return kTable;
}

}  // namespace qwen35
