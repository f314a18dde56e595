// Some of these tests run in a process of their own (a death test that is started anew), since a
// process chooses its kernels once.
#include "qwen35/simd/dispatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "qwen35/simd/instruction_sets.h"

namespace {

using qwen35::kernels;
using qwen35::KernelTable;
using qwen35::supportedInstructionSets;
using qwen35::supportedKernels;

class KernelDispatch : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Status 0 when this process, with the variable set so, takes the kernels of that name.
  [[noreturn]] static void takeKernels(const char* wanted, std::string_view expected) {
    setenv("ZYM_CPU", wanted, 1);
    std::exit(kernels().name == expected && kernels().name == expected ? 0 : 1);
  }

  // The same, by several threads at once.
  [[noreturn]] static void takeKernelsAtOnce(const char* wanted) {
    setenv("ZYM_CPU", wanted, 1);
    std::vector<const KernelTable*> taken(8);
    std::vector<std::thread> threads;
    for (const KernelTable*& table : taken) {
      threads.emplace_back([&table] { table = &kernels(); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    const bool same = taken == std::vector<const KernelTable*>(8, supportedKernels().back());
    std::exit(same ? 0 : 1);
  }
};

TEST_F(KernelDispatch, TablesBearTheNamesOfTheirInstructionSets) {
  const std::vector<std::string_view> names = supportedInstructionSets();
  const std::vector<const KernelTable*> tables = supportedKernels();
  ASSERT_EQ(names.size(), tables.size());
  for (size_t i = 0; i < tables.size(); ++i) {
    EXPECT_EQ(names[i], tables[i]->name);
  }
}

// Run by CTest without the variable, and once more with the plainest kernels in it.
TEST_F(KernelDispatch, TheEnvironmentOfTheProcessIsObeyed) {
  const char* wanted = std::getenv("ZYM_CPU");
  const std::string preferred = supportedKernels().back()->name;
  EXPECT_EQ(wanted == nullptr ? preferred : wanted, kernels().name);
}

TEST_F(KernelDispatch, EverySupportedTableCanBeForcedInSilence) {
  for (const KernelTable* table : supportedKernels()) {
    EXPECT_EXIT(takeKernels(table->name, table->name), testing::ExitedWithCode(0),
                testing::StrEq(""));
  }
}

TEST_F(KernelDispatch, AnEmptyValueIsNone) {
  EXPECT_EXIT(takeKernels("", supportedKernels().back()->name), testing::ExitedWithCode(0),
              testing::StrEq(""));
}

TEST_F(KernelDispatch, ANameThatCannotBeHadIsToldOfOnce) {
  std::string supported;
  for (const std::string_view name : supportedInstructionSets()) {
    supported.append(supported.empty() ? "" : ", ").append(name);
  }
  const std::string line = "ZYM_CPU: there are no kernels named \"abacus\"; using " +
                           std::string(supportedKernels().back()->name) +
                           " (supported: " + supported + ")\n";
  EXPECT_EXIT(takeKernelsAtOnce("abacus"), testing::ExitedWithCode(0), testing::StrEq(line));
}

}  // namespace
