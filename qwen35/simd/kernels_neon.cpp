// The kernels for Armv8.2 with dot products. Only this file is compiled for it.
#include "qwen35/simd/lane_table.h"
#include "qwen35/simd/tables.h"
#include "qwen35/simd/vector_neon.h"

namespace qwen35 {

const KernelTable& neonKernels() {
  static constexpr KernelTable kTable = laneTable<Neon>("neon");
  return kTable;
}

}  // namespace qwen35
