// The kernels for AVX2 with FMA and F16C. Only the files of an instruction set are compiled for it.
#include "qwen35/simd/lane_table.h"
#include "qwen35/simd/tables.h"
#include "qwen35/simd/vector_avx2.h"

namespace qwen35 {

const KernelTable& avx2Kernels() {
  static constexpr KernelTable kTable = laneTable<Avx2>("avx2");
  return kTable;
}

}  // namespace qwen35
