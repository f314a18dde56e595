#include "qwen35/simd/dispatch.h"

#include <atomic>

#ifdef ZYM_HAVE_AVX2
#include <cpuid.h>
#endif

#include "qwen35/simd/tables.h"

namespace qwen35 {

namespace {

std::atomic<const KernelTable*> forced{nullptr};

#ifdef ZYM_HAVE_AVX2
// Conversions of half precision, of which not every compiler's builtin knows.
bool hasF16c() {
  unsigned registers[4] = {};
  return __get_cpuid(1, &registers[0], &registers[1], &registers[2], &registers[3]) != 0 &&
         (registers[2] & bit_F16C) != 0;
}
#endif

}  // namespace

std::vector<const KernelTable*> supportedKernels() {
  std::vector<const KernelTable*> tables{&scalarKernels()};
#ifdef ZYM_HAVE_AVX2
  // The builtin also asks whether the operating system saves the wide registers.
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && hasF16c()) {
    tables.push_back(&avx2Kernels());
  }
#endif
  return tables;
}

const KernelTable& kernels() {
  if (const KernelTable* table = forced.load(std::memory_order_relaxed)) {
    return *table;
  }
  static const KernelTable* const chosen = supportedKernels().back();
  return *chosen;
}

void setKernelsForTesting(const KernelTable* table) {
  forced.store(table, std::memory_order_relaxed);
}

}  // namespace qwen35
