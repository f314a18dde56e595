#include "qwen35/simd/dispatch.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "qwen35/simd/instruction_sets.h"
#include "qwen35/simd/tables.h"

namespace qwen35 {

namespace {

struct BuiltTable {
  std::string_view instructionSet;
  const KernelTable& (*table)();  // only called where the machine runs the set
};

constexpr BuiltTable kBuilt[] = {
    {"scalar", scalarKernels},
#ifdef ZYM_HAVE_AVX2
    {"avx2", avx2Kernels},
#endif
#ifdef ZYM_HAVE_AVXVNNI
    {"avxvnni", avxVnniKernels},
#endif
#ifdef ZYM_HAVE_AVX512
    {"avx512", avx512Kernels},
#endif
#ifdef ZYM_HAVE_NEON
    {"neon", neonKernels},
#endif
};

// instructionSet: a supported one.
const KernelTable& tableOf(std::string_view instructionSet) {
  return std::find_if(
             std::begin(kBuilt), std::end(kBuilt),
             [=](const BuiltTable& built) { return built.instructionSet == instructionSet; })
      ->table();
}

const KernelTable& chosenTable() {
  const InstructionSetChoice& choice = instructionSet();
  if (!choice.fault.empty()) {
    std::fprintf(stderr, "%s\n", choice.fault.c_str());
  }
  return tableOf(choice.name);
}

}  // namespace

std::vector<const KernelTable*> supportedKernels() {
  std::vector<const KernelTable*> tables;
  for (const std::string_view instructionSet : supportedInstructionSets()) {
    tables.push_back(&tableOf(instructionSet));
  }
  return tables;
}

const KernelTable& kernels() {
  static const KernelTable& chosen = chosenTable();
  return chosen;
}

}  // namespace qwen35
