#include "qwen35/simd/instruction_sets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace {

using qwen35::chooseInstructionSet;
using qwen35::InstructionSetChoice;

constexpr std::array<std::string_view, 3> kSupported = {"scalar", "avx2", "avx512"};

TEST(InstructionSets, TheLastSupportedOneIsPreferred) {
  for (const char* nothing : {static_cast<const char*>(nullptr), ""}) {
    const InstructionSetChoice choice = chooseInstructionSet(kSupported, nothing);
    EXPECT_EQ("avx512", choice.name);
    EXPECT_EQ("", choice.fault);
  }
}

TEST(InstructionSets, ASupportedOneIsTakenByItsName) {
  for (const char* wanted : {"scalar", "avx2", "avx512"}) {
    const InstructionSetChoice choice = chooseInstructionSet(kSupported, wanted);
    EXPECT_EQ(wanted, choice.name);
    EXPECT_EQ("", choice.fault);
  }
}

TEST(InstructionSets, AKnownOneThatIsNotSupportedGivesThePreferredOne) {
  for (const char* wanted : {"avxvnni", "neon"}) {
    const InstructionSetChoice choice = chooseInstructionSet(kSupported, wanted);
    EXPECT_EQ("avx512", choice.name);
    EXPECT_EQ("ZYM_CPU: the " + std::string(wanted) +
                  " kernels are not supported here; using avx512 (supported: scalar, avx2, avx512)",
              choice.fault);
  }
  constexpr std::array<std::string_view, 1> kPlain = {"scalar"};
  for (const char* wanted : {"avx2", "avxvnni", "avx512", "neon"}) {
    EXPECT_EQ("ZYM_CPU: the " + std::string(wanted) +
                  " kernels are not supported here; using scalar (supported: scalar)",
              chooseInstructionSet(kPlain, wanted).fault);
  }
}

TEST(InstructionSets, AnUnknownNameGivesThePreferredOne) {
  for (const char* wanted : {"abacus", "AVX2", "avx", "avx2 ", "scalar,avx2"}) {
    const InstructionSetChoice choice = chooseInstructionSet(kSupported, wanted);
    EXPECT_EQ("avx512", choice.name);
    EXPECT_EQ("ZYM_CPU: there are no kernels named \"" + std::string(wanted) +
                  "\"; using avx512 (supported: scalar, avx2, avx512)",
              choice.fault);
  }
}

TEST(InstructionSets, AnUnknownNameIsShownInOneShortLine) {
  const std::string line =
      chooseInstructionSet(kSupported, ("a\nb\x1b\x7f\xC3\xA9" + std::string(1000, 'x')).c_str())
          .fault;
  EXPECT_EQ("ZYM_CPU: there are no kernels named \"a?b????" + std::string(33, 'x') +
                "...\"; using avx512 (supported: scalar, avx2, avx512)",
            line);
}

#if defined(__x86_64__)
constexpr const char* kFeatures = "flags";
#else
constexpr const char* kFeatures = "Features";
#endif

// The words of the first line that tells what the processor has, each between spaces.
std::string processorFeatures() {
  std::ifstream file("/proc/cpuinfo");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with(kFeatures)) {
      return line + " ";
    }
  }
  return "";
}

TEST(InstructionSets, SupportedAreThoseOfThisBuildThatTheSystemTellsOf) {
  const std::string features = processorFeatures();
  if (features.empty()) {
    GTEST_SKIP() << "the system does not tell";
  }
  const auto has = [&](std::initializer_list<const char*> names) {
    return std::all_of(names.begin(), names.end(), [&](const char* name) {
      return features.find(" " + std::string(name) + " ") != std::string::npos;
    });
  };
  [[maybe_unused]] const bool avx2 = has({"avx2", "fma", "f16c"});
  std::vector<std::string_view> expected = {"scalar"};
  [[maybe_unused]] const auto expectIf = [&](bool supported, std::string_view name) {
    if (supported) {
      expected.push_back(name);
    }
  };
#ifdef ZYM_HAVE_AVX2
  expectIf(avx2, "avx2");
#endif
#ifdef ZYM_HAVE_AVXVNNI
  expectIf(avx2 && has({"avx_vnni"}), "avxvnni");
#endif
#ifdef ZYM_HAVE_AVX512
  expectIf(avx2 && has({"avx512f", "avx512bw", "avx512vl", "avx512dq", "avx512_vnni"}), "avx512");
#endif
#ifdef ZYM_HAVE_NEON
  expectIf(has({"asimddp"}), "neon");
#endif
  EXPECT_EQ(expected, qwen35::supportedInstructionSets()) << features;
}

}  // namespace
