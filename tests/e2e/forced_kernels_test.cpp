// ZYM_CPU from the outside: what a user of the program sees with the real runtime. That the runtime
// takes the kernels, and that all of them give the same bits, is tested where they are chosen
// (dispatch_test) and where they compute (pass_test).
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "qwen35/simd/instruction_sets.h"
#include "tests/e2e/fixture.h"
#include "tests/support/chat_model.h"
#include "tests/support/scoped_env.h"

namespace zym {
namespace {

class ForcedKernelsTest : public testing_support::ProgramTest {
 protected:
  void SetUp() override {
    testing_support::ProgramTest::SetUp();
    setenv("ZYM_PLUGIN", ZYM_RUNTIME, 1);
    setenv("OMP_NUM_THREADS", "1", 1);
    kel::test::writeChatModel(model, {.favourite = "<|im_end|>"});  // a reply of one token
  }

  testing_support::Outcome chat(const std::string& kernels) const {
    const kel::test::ScopedEnv environment("ZYM_CPU", kernels.c_str());
    return zym({"run", model, "--chat", "-p", "Hello", "-p", "Hello again"});
  }
};

TEST_F(ForcedKernelsTest, ASupportedNameIsTakenInSilence) {
  for (const std::string_view name : qwen35::supportedInstructionSets()) {
    const testing_support::Outcome outcome = chat(std::string(name));
    EXPECT_EQ(outcome.status, 0) << name;
    EXPECT_EQ(outcome.out, "\n\n") << name;
    EXPECT_EQ(outcome.err, "") << name;
  }
}

// The program and the library both read the variable; the library speaks, and in one line.
TEST_F(ForcedKernelsTest, AnUnknownNameIsToldOfOnceAndHarmsNothing) {
  const std::vector<std::string_view> supported = qwen35::supportedInstructionSets();
  const testing_support::Outcome outcome = chat("abacus");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "\n\n");
  EXPECT_EQ(outcome.err, qwen35::chooseInstructionSet(supported, "abacus").fault + "\n");
}

}  // namespace
}  // namespace zym
