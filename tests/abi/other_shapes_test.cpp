// Models of other shapes than the library's: which it refuses to open, and which it opens and does
// not run. What it computes of those that it runs: tests/session/open_session_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/family_shapes.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::familyShape;
using testing_abi::Handle;
using testing_abi::plugin;
using testing_abi::Reply;

constexpr size_t kVocab = 300;

class OtherShapes : public testing::Test {
 protected:
  std::string model(const kel::ModelShape& shape) const {
    std::string path = folder.file("m.zym");
    const kel::Status status =
        kel::test::writeRandomModel(path, {.vocab = kVocab,
                                           .types = {kel::QuantType::BF16},
                                           .shape = shape,
                                           .statesShape = true,
                                           .tokenizer = kel::test::chatTables(kVocab)});
    EXPECT_EQ("", status.message);
    return path;
  }

  // Every call that would run the model.
  static void expectNothingRuns(const std::string& path) {
    const Handle handle = testing_abi::createHandle(path);
    ASSERT_NE(nullptr, handle);
    const Reply refused{.status = 1, .text = ""};
    const ZYMSessionOptions greedy = testing_abi::sampling(0, 1, 1, 1);
    EXPECT_EQ(refused, testing_abi::generate(handle, "hello"));
    EXPECT_EQ(refused, testing_abi::generateEx(handle, "hello", &greedy));
    EXPECT_EQ(refused, testing_abi::chatTurn(handle, "hello"));
    EXPECT_EQ(refused, testing_abi::streamTurn(handle, "hello"));
    EXPECT_EQ(0U, testing_abi::statsOf(handle).contextTokens);
    EXPECT_EQ(0U, testing_abi::resetOf(handle));
  }

  kel::test::TempDir folder;
};

TEST_F(OtherShapes, FewerLayersAreRefusedAtCreate) {
  const std::string path = model(familyShape(24, 16, 4, 32, false));
  ZYMRuntimeProbe probe{};
  EXPECT_EQ(0U, plugin().runtimesV2(nullptr)->probe(path.c_str(), &probe));
  EXPECT_GT(probe.score, 0U);
  auto* handle = reinterpret_cast<ZYMRuntimeHandle*>(0x1);
  char message[64] = "";
  EXPECT_EQ(1U, plugin().runtimesV2(nullptr)->create(path.c_str(), nullptr, &handle, message,
                                                     sizeof message));
  EXPECT_STREQ("qwen35 layer bind failed", message);
  EXPECT_EQ(nullptr, handle);
}

TEST_F(OtherShapes, OtherHeadCountsOpenAndDoNotRun) {
  expectNothingRuns(model(familyShape(32, 8, 2, 16, false)));
}

TEST_F(OtherShapes, TheLargestOfTheFamilyOpensAndDoesNotRun) {
  expectNothingRuns(model(familyShape(64, 24, 4, 48, true)));
}

TEST_F(OtherShapes, TheLibrarysOwnShapeRunsWhateverTheContextIs) {
  const Handle handle = testing_abi::createHandle(model(familyShape(32, 16, 4, 32, false)));
  EXPECT_EQ(0U, testing_abi::firstPieces(handle, "hello", 1).status);
}

}  // namespace
