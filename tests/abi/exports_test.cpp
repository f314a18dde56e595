// Reads the plugin's dynamic symbol table from the ELF file: what a host can resolve is exactly the
// four entry points, and what the plugin resolves holds no inexact function of single precision.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/support/elf_library.h"
#include "tests/support/instrumented.h"

namespace {

using kel::test::dynamicSymbols;
using kel::test::dynamicTexts;
using kel::test::readLibrary;
using kel::test::Symbols;

TEST(Exports, AreExactlyTheFourEntryPoints) {
  const std::set<std::string> expected = {"zym_plugin_init", "zym_plugin_runtimes",
                                          "zym_plugin_runtimes_v2", "zym_plugin_runtimes_v2s"};
  EXPECT_EQ(expected, dynamicSymbols(readLibrary(ZYM_PLUGIN_PATH), Symbols::Exported));
}

// In single precision a difference in the last bit of such a function is one in a result.
TEST(Dependencies, HaveNoInexactFunctionsOfSinglePrecision) {
  if (kel::test::kInstrumented) {
    GTEST_SKIP() << "an instrumented build brings the functions of its own runtime";
  }
  const std::set<std::string> imported =
      dynamicSymbols(readLibrary(ZYM_PLUGIN_PATH), Symbols::Imported);
  EXPECT_TRUE(imported.contains("exp")) << "the sampler's, in double precision";
  for (const char* name : {"exp", "exp2", "exp10", "expm1", "log", "log2", "log10", "log1p", "pow",
                           "sin", "cos", "sincos", "tan", "sinh", "cosh", "tanh", "cbrt", "erf"}) {
    EXPECT_FALSE(imported.contains(std::string(name) + "f")) << name;
  }
}

TEST(Dependencies, AreTheLanguageRuntimesAlone) {
  if (kel::test::kInstrumented) {
    GTEST_SKIP() << "an instrumented build needs its own runtime";
  }
  const std::set<std::string> allowed = {"libstdc++.so.6",
                                         "libm.so.6",
                                         "libgomp.so.1",
                                         "libgcc_s.so.1",
                                         "libc.so.6",
                                         "libomp.so.5",
                                         "libpthread.so.0",
                                         "ld-linux-x86-64.so.2",
                                         "ld-linux-aarch64.so.1"};
  for (const std::string& library : dynamicTexts(readLibrary(ZYM_PLUGIN_PATH), DT_NEEDED)) {
    EXPECT_TRUE(allowed.contains(library)) << library;
  }
}

}  // namespace
