// The kernels of AVX-VNNI with their byte products in the encoding of AVX-512, so that machines
// without AVX-VNNI run them.
#include "qwen35/simd/lane_table.h"
#include "qwen35/simd/vector_avxvnni.h"
#include "tests/qwen35/test_kernels.h"

#ifdef __AVXVNNI__
#error "this compiler takes the encoding of AVX-VNNI"
#endif

namespace qwen35 {

const KernelTable& avxVnniKernelsInEvex() {
  static constexpr KernelTable kTable = laneTable<AvxVnni>("avxvnni-evex");
  return kTable;
}

}  // namespace qwen35
