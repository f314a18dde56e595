#include "qwen35/simd/dispatch.h"

#ifdef ZYM_HAVE_AVX2
#include <cpuid.h>
#endif
#ifdef ZYM_HAVE_NEON
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

#include "qwen35/simd/tables.h"

namespace qwen35 {

namespace {

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
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq") &&
        __builtin_cpu_supports("avx512vnni")) {
      tables.push_back(&avx512Kernels());
    }
  }
#endif
#ifdef ZYM_HAVE_NEON
  if ((getauxval(AT_HWCAP) & HWCAP_ASIMDDP) != 0) {
    tables.push_back(&neonKernels());
  }
#endif
  return tables;
}

const KernelTable& kernels() {
  static const KernelTable* const chosen = supportedKernels().back();
  return *chosen;
}

}  // namespace qwen35
