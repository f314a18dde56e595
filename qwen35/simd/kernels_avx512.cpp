// The kernels for AVX-512 with VNNI. Only the files of an instruction set are compiled for it.
#include "qwen35/simd/lane_table.h"
#include "qwen35/simd/tables.h"
#include "qwen35/simd/vector_avx512.h"

namespace qwen35 {

const KernelTable& avx512Kernels() {
  static constexpr KernelTable kTable = laneTable<Avx512>("avx512");
  return kTable;
}

}  // namespace qwen35
