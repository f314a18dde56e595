// The kernels for AVX2 with AVX-VNNI. Only the files of an instruction set are compiled for it.
#include "qwen35/simd/lane_table.h"
#include "qwen35/simd/tables.h"
#include "qwen35/simd/vector_avxvnni.h"

namespace qwen35 {

const KernelTable& avxVnniKernels() {
  static constexpr KernelTable kTable = laneTable<AvxVnni>("avxvnni");
  return kTable;
}

}  // namespace qwen35
