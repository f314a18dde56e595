#include "qwen35/simd/instruction_sets.h"

#include <algorithm>
#include <cstdlib>

#if defined(__x86_64__)
#include <cpuid.h>
#elif defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace qwen35 {

namespace {

constexpr std::string_view kKnown[] = {"scalar", "avx2", "avxvnni", "avx512", "neon"};

// A longer name is none that a message need repeat whole.
constexpr size_t kLongestShown = 40;

// What the files of each set are compiled for (CMakeLists.txt) is what is asked for here: the two
// lists change together. Of wide registers the builtin asks the operating system as well, which has
// to save them.
#if defined(__x86_64__)
// Conversions of half precision, of which not every compiler's builtin knows.
[[maybe_unused]] bool hasF16c() {
  unsigned registers[4] = {};
  return __get_cpuid(1, &registers[0], &registers[1], &registers[2], &registers[3]) != 0 &&
         (registers[2] & bit_F16C) != 0;
}

[[maybe_unused]] bool hasAvx2() {
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && hasF16c();
}

// Products of bytes in 256 bits, encoded as AVX2 is. The builtins do not know of them.
[[maybe_unused]] bool hasAvxVnni() {
  constexpr unsigned kLeaf = 7;
  constexpr unsigned kAvxVnni = 1U << 4;
  unsigned registers[4] = {};
  if (__get_cpuid_count(kLeaf, 0, &registers[0], &registers[1], &registers[2], &registers[3]) ==
          0 ||
      registers[0] < 1) {  // the number of the leaf's last part
    return false;
  }
  __cpuid_count(kLeaf, 1, registers[0], registers[1], registers[2], registers[3]);
  return hasAvx2() && (registers[0] & kAvxVnni) != 0;
}

[[maybe_unused]] bool hasAvx512() {
  return hasAvx2() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq") &&
         __builtin_cpu_supports("avx512vnni");
}
#elif defined(__aarch64__)
// Dot products of bytes; the vectors themselves are part of the architecture.
[[maybe_unused]] bool hasNeonDotProducts() {
  return (getauxval(AT_HWCAP) & HWCAP_ASIMDDP) != 0;
}
#endif

// Fit for a line of a message, whatever the environment holds.
std::string shown(std::string_view name) {
  std::string text(name.substr(0, kLongestShown));
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return text.size() < name.size() ? text + "..." : text;
}

std::string faultOf(std::string_view wanted, std::span<const std::string_view> supported) {
  const bool known = std::find(std::begin(kKnown), std::end(kKnown), wanted) != std::end(kKnown);
  std::string fault = "ZYM_CPU: ";
  fault += known ? "the " + std::string(wanted) + " kernels are not supported here"
                 : "there are no kernels named \"" + shown(wanted) + "\"";
  fault += "; using " + std::string(supported.back());
  const char* separator = " (supported: ";
  for (const std::string_view set : supported) {
    fault.append(separator).append(set);
    separator = ", ";
  }
  return fault + ")";
}

}  // namespace

std::vector<std::string_view> supportedInstructionSets() {
  std::vector<std::string_view> sets{"scalar"};
#ifdef ZYM_HAVE_AVX2
  if (hasAvx2()) {
    sets.emplace_back("avx2");
  }
#endif
#ifdef ZYM_HAVE_AVXVNNI
  if (hasAvxVnni()) {
    sets.emplace_back("avxvnni");
  }
#endif
#ifdef ZYM_HAVE_AVX512
  if (hasAvx512()) {
    sets.emplace_back("avx512");
  }
#endif
#ifdef ZYM_HAVE_NEON
  if (hasNeonDotProducts()) {
    sets.emplace_back("neon");
  }
#endif
  return sets;
}

InstructionSetChoice chooseInstructionSet(std::span<const std::string_view> supported,
                                          const char* wanted) {
  const std::string_view name = wanted == nullptr ? "" : wanted;
  const auto found = std::find(supported.begin(), supported.end(), name);
  if (found != supported.end()) {
    return {*found, ""};
  }
  return {supported.back(), name.empty() ? "" : faultOf(name, supported)};
}

const InstructionSetChoice& instructionSet() {
  static const InstructionSetChoice choice =
      chooseInstructionSet(supportedInstructionSets(), std::getenv("ZYM_CPU"));
  return choice;
}

}  // namespace qwen35
