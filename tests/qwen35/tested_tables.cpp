#include "tests/qwen35/tested_tables.h"

#include <algorithm>
#include <string_view>

#include "qwen35/simd/dispatch.h"
#include "tests/qwen35/test_kernels.h"

namespace qwen35 {

namespace {

#ifdef ZYM_HAVE_AVXVNNI_EVEX
bool isAvx2(const KernelTable* table) {
  return std::string_view(table->name) == "avx2";
}
#endif

std::vector<const KernelTable*> allTables() {
  std::vector<const KernelTable*> tables = supportedKernels();
#ifdef ZYM_HAVE_AVXVNNI_EVEX
  // A machine that runs the AVX2 table has all that the other one needs beside these two.
  if (std::any_of(tables.begin(), tables.end(), isAvx2) && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("avx512vnni")) {
    tables.push_back(&avxVnniKernelsInEvex());
  }
#endif
  tables.insert(tables.end(),
                {&emulatedAvx2Kernels(), &emulatedAvx512Kernels(), &emulatedOddKernels()});
  return tables;
}

}  // namespace

const std::vector<const KernelTable*>& testedTables() {
  // Asking a virtual machine's processor what it can do takes long.
  static const std::vector<const KernelTable*> tables = allTables();
  return tables;
}

}  // namespace qwen35
