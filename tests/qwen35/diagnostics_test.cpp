#include "qwen35/diagnostics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/hidden_dump.h"
#include "tests/support/opened_model.h"
#include "tests/support/patterns.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::test::DumpRecord;
using kel::test::Handle;
using kel::test::matches;
using kel::test::ModelFile;
using kel::test::ScopedEnv;

template <typename Action>
std::vector<std::string> linesOf(const Action& action) {
  testing::internal::CaptureStderr();
  action();
  std::istringstream text(testing::internal::GetCapturedStderr());
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

class Diagnostics : public ::testing::Test {
 protected:
  ModelFile file;
  Handle handle{file.path};
};

TEST_F(Diagnostics, NothingIsPrintedByDefault) {
  EXPECT_TRUE(linesOf([&] {
                handle.hidden(1);
                handle.logits(2);
              }).empty());
}

TEST_F(Diagnostics, DbgPrintsNormsOfEveryLayerAtPositionZero) {
  const ScopedEnv dbg("QWEN35_DBG", "1");
  const std::vector<std::string> lines = linesOf([&] { handle.logits(1); });
  ASSERT_EQ(65u, lines.size());
  const std::string number = R"( *\d+\.\d{3})";
  const std::string exponential = R"(\d\.\d{3}e[+-]\d{2})";
  for (size_t l = 0; l < 32; ++l) {
    char head[16];
    std::snprintf(head, sizeof head, "  L%02zu %s", l, l % 4 == 3 ? "ful" : "lin");
    const std::string norms = std::string(head) + R"( \|x\|=)" + number + R"( \|attn\|=)" +
                              exponential + R"( \|xnorm\|=  0\.000)";
    EXPECT_TRUE(matches(lines[2 * l], norms)) << lines[2 * l];
    EXPECT_TRUE(matches(lines[2 * l + 1], R"(        \|ffn\|=)" + exponential)) << lines[2 * l + 1];
  }
  EXPECT_TRUE(matches(
      lines[64], R"(  final \|orig\|=\d+\.\d{3} \|cur\|=\d+\.\d{3} cos\(orig,cur\)=-?\d\.\d{4})"))
      << lines[64];
}

TEST_F(Diagnostics, DbgLinesAppearOnlyAtPositionZeroAndNotInHiddenPasses) {
  const ScopedEnv dbg("QWEN35_DBG", "1");
  EXPECT_TRUE(linesOf([&] {
                handle.hidden(1);
                handle.logits(2);
              }).empty());
}

TEST_F(Diagnostics, TimingIsPrintedByHiddenPassesAlone) {
  const ScopedEnv timing("QWEN35_TIMING", "1");
  const std::vector<std::string> lines = linesOf([&] {
    handle.hidden(1);
    handle.hidden(1);
    handle.logits(1);
  });
  ASSERT_EQ(2u, lines.size());
  EXPECT_TRUE(matches(lines[1], R"(\[timing\] hidden fwd pos=1 \d+\.\d ms)")) << lines[1];
}

TEST_F(Diagnostics, PrintingChangesNoResult) {
  const std::vector<float> expected = handle.logits(1);
  const ScopedEnv dbg("QWEN35_DBG", "1");
  const ScopedEnv dbg2("QWEN35_DBG2", "1");
  const ScopedEnv dbg3("QWEN35_DBG3", "1");
  const ScopedEnv dbg4("QWEN35_DBG4", "1");
  Handle second(file.path);
  std::vector<float> logits;
  linesOf([&] { logits = second.logits(1); });
  EXPECT_EQ(expected, logits);
}

TEST_F(Diagnostics, ADumpOfOneTokenHas161RecordsInOrder) {
  const std::string path = file.folder.file("dump");
  const ScopedEnv dump("QWEN35_HID_DUMP", path.c_str());
  handle.logits(1);
  handle.hidden(1);  // does not dump
  const std::vector<DumpRecord> records = kel::test::readHiddenDump(path);
  ASSERT_EQ(161u, records.size());
  const char* const names[] = {"attn_mm", "attn_res", "post_norm", "ffn_mm", "layer_out"};
  for (size_t i = 0; i < 160; ++i) {
    EXPECT_EQ(std::string("S").append(std::to_string(i / 5)).append(".").append(names[i % 5]),
              records[i].name);
    EXPECT_EQ(0u, records[i].pos);
    EXPECT_EQ(8u, records[i].values.size());
  }
  EXPECT_EQ("result_norm", records[160].name);
  EXPECT_EQ(records[159].values, records[160].values);
}

TEST_F(Diagnostics, ADumpGrowsWithEveryCall) {
  const std::string path = file.folder.file("dump");
  const ScopedEnv dump("QWEN35_HID_DUMP", path.c_str());
  handle.logits(1);
  handle.logits(2);
  const std::vector<DumpRecord> records = kel::test::readHiddenDump(path);
  ASSERT_EQ(322u, records.size());
  EXPECT_EQ(1u, records[321].pos);
}

TEST_F(Diagnostics, ADumpThatCannotBeOpenedIsSkipped) {
  const std::vector<float> expected = handle.logits(1);
  const ScopedEnv dump("QWEN35_HID_DUMP", "/nonexistent/folder/dump");
  Handle second(file.path);
  EXPECT_EQ(expected, second.logits(1));
}

TEST(HiddenDump, ARecordOf2048FloatsWithATenByteNameTakes8218Bytes) {
  const kel::test::TempDir folder;
  const std::string path = folder.file("dump");
  {
    qwen35::HiddenDump dump(path.c_str());
    dump.layerRecord(0, 0, "attn_mm", std::vector<float>(2048));
  }
  EXPECT_EQ(8218u, std::filesystem::file_size(path));
}

TEST(ScoreStatistics, EntropyColumnIsTheLogarithmOfTheSumPlusTheMaximum) {
  const float scores[] = {1.0f, 2.0f, 4.0f};
  const std::vector<std::string> lines =
      linesOf([&] { qwen35::printScoreStatistics(scores, 2, 4.0f); });
  char expected[80];
  std::snprintf(expected, sizeof expected, "FULL kvLen=2 qh0: max 4.000 ent %.4f nTok 3",
                std::log(std::exp(-3.0) + std::exp(-2.0) + 1) + 4);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(expected, lines[0]);
}

}  // namespace
