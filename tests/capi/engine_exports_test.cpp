// What a program can resolve in libzym.so is exactly what the header declares, each under the
// version of the first release, so that programs linked today find it in every later one.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/support/elf_library.h"
#include "tests/support/instrumented.h"
#include "zym/engine.h"

namespace {

using kel::test::dynamicSymbols;
using kel::test::dynamicTexts;
using kel::test::readLibrary;
using kel::test::Symbols;

const std::set<std::string>& functions() {
  static const std::set<std::string> names = {"zym_context_cancel",
                                              "zym_context_continue",
                                              "zym_context_create",
                                              "zym_context_destroy",
                                              "zym_context_load",
                                              "zym_context_reply",
                                              "zym_context_reset",
                                              "zym_context_save",
                                              "zym_context_statistics",
                                              "zym_decoder_create",
                                              "zym_decoder_destroy",
                                              "zym_decoder_feed",
                                              "zym_decoder_finish",
                                              "zym_engine_version",
                                              "zym_model_close",
                                              "zym_model_detokenize",
                                              "zym_model_facts",
                                              "zym_model_open",
                                              "zym_model_recommended_sampling",
                                              "zym_model_tokenize",
                                              "zym_model_tokenize_conversation",
                                              "zym_reply_destroy",
                                              "zym_status_text"};
  return names;
}

TEST(EngineExports, AreExactlyTheFunctionsOfTheHeader) {
  EXPECT_EQ(functions(), dynamicSymbols(readLibrary(ZYM_LIBRARY), Symbols::Exported));
}

TEST(EngineExports, HaveTheVersionOfTheFirstRelease) {
  void* const library = ::dlopen(ZYM_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, library) << ::dlerror();
  for (const std::string& name : functions()) {
    EXPECT_NE(nullptr, ::dlvsym(library, name.c_str(), "ZYM_ENGINE_1")) << name;
  }
  ::dlclose(library);
}

TEST(EngineLibrary, IsFoundByItsBinaryVersion) {
  EXPECT_EQ(std::set<std::string>{"libzym.so.1"},
            dynamicTexts(readLibrary(ZYM_LIBRARY), DT_SONAME));
}

TEST(EngineLibrary, LoadsNothingOfOurs) {
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
                                         "libutf8proc.so.2",
                                         "libxxhash.so.0",
                                         "ld-linux-x86-64.so.2",
                                         "ld-linux-aarch64.so.1"};
  for (const std::string& library : dynamicTexts(readLibrary(ZYM_LIBRARY), DT_NEEDED)) {
    EXPECT_TRUE(allowed.contains(library)) << library;
  }
}

}  // namespace
