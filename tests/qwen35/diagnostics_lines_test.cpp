// Every field of what the forward pass reports, from vectors that are computed apart from it; and
// the switches that change a pass.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "tests/qwen35/compute_headers.h"
#include "tests/qwen35/scalar_rules.h"
#include "tests/support/hidden_dump.h"
#include "tests/support/opened_model.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::test::DumpRecord;
using kel::test::Handle;
using kel::test::ModelFile;
using kel::test::ScopedEnv;
using qwen35::Layer;
using scalar_rules::firstDifference;
using scalar_rules::norm;

constexpr size_t kLayers = 32;
constexpr size_t kRecords = 5 * kLayers + 1;

// One file for all tests.
const ModelFile& model() {
  static const ModelFile file({.biases = true});
  return file;
}

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

template <typename... Values>
std::string formatted(const char* format, Values... values) {
  char text[160];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

std::vector<float> embedding(Handle& handle, size_t token) {
  std::vector<float> row(handle.model.nEmbd);
  qwen35::embedRow(handle.model, token, row.data());
  return row;
}

std::vector<float> sum(const std::vector<float>& a, const std::vector<float>& b) {
  std::vector<float> out;
  for (size_t i = 0; i < a.size(); ++i) {
    out.push_back(a[i] + b[i]);
  }
  return out;
}

double cosine(const std::vector<float>& a, const std::vector<float>& b) {
  double dot = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    dot += static_cast<double>(a[i]) * static_cast<double>(b[i]);
  }
  return dot / (norm(a) * norm(b));
}

// A layer's own steps, one after the other.
class StepByStep {
 public:
  explicit StepByStep(const std::string& path) : handle(path) {}

  std::vector<float> attention(size_t l, const std::vector<float>& x, size_t pos) {
    std::vector<float> out(x.size());
    Layer& layer = handle.model.layers[l];
    if (layer.isLinear) {
      qwen35::linearAttnStep(handle.model, layer, x.data(), out.data(), l, pos);
    } else {
      qwen35::fullAttnStep(handle.model, layer, x.data(), out.data(), pos, l);
    }
    return out;
  }

  std::vector<float> postNorm(size_t l, const std::vector<float>& residual) const {
    const Layer& layer = handle.model.layers[l];
    return scalar_rules::rmsNorm(
        residual.data(), static_cast<const float*>(layer.postAttnNorm->data), residual.size());
  }

  std::vector<float> feedForward(size_t l, const std::vector<float>& normed) {
    std::vector<float> out(normed.size());
    qwen35::ffnStep(normed.size(), handle.model.layers[l], normed.data(), out.data());
    return out;
  }

  Handle handle;
};

void expectNear(const std::vector<float>& expected, const DumpRecord& actual) {
  ASSERT_EQ(expected.size(), actual.values.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NEAR(expected[i], actual.values[i], 1e-5 * norm(expected)) << actual.name << ", " << i;
  }
}

// Takes the records of one token apart; leaves its position's step in `steps`.
void expectRecordsOfAPass(StepByStep& steps, size_t token, uint32_t pos,
                          const DumpRecord* records) {
  std::vector<float> x = embedding(steps.handle, token);
  for (size_t l = 0; l < kLayers; ++l) {
    const DumpRecord* const of = records + 5 * l;
    const char* const names[] = {"attn_mm", "attn_res", "post_norm", "ffn_mm", "layer_out"};
    for (size_t i = 0; i < 5; ++i) {
      EXPECT_EQ("S" + std::to_string(l) + "." + names[i], of[i].name);
      EXPECT_EQ(pos, of[i].pos) << of[i].name;
    }
    expectNear(steps.attention(l, x, pos), of[0]);
    EXPECT_EQ("", firstDifference(sum(x, of[0].values), of[1].values)) << of[1].name;
    EXPECT_EQ("", firstDifference(steps.postNorm(l, of[1].values), of[2].values)) << of[2].name;
    expectNear(steps.feedForward(l, of[2].values), of[3]);
    EXPECT_EQ("", firstDifference(sum(of[1].values, of[3].values), of[4].values)) << of[4].name;
    x = of[4].values;
  }
  EXPECT_EQ("result_norm", records[5 * kLayers].name);
  EXPECT_EQ(pos, records[5 * kLayers].pos);
  EXPECT_EQ("", firstDifference(x, records[5 * kLayers].values));
}

TEST(HiddenDumpRecords, HoldTheVectorsThatTheyName) {
  const std::string path = model().folder.file("contents");
  const ScopedEnv dump("QWEN35_HID_DUMP", path.c_str());
  Handle handle(model().path);
  handle.logits(5);
  handle.hidden(6);  // not dumped
  handle.logits(7);
  const std::vector<DumpRecord> records = kel::test::readHiddenDump(path);
  ASSERT_EQ(2 * kRecords, records.size());
  StepByStep steps(model().path);
  expectRecordsOfAPass(steps, 5, 0, records.data());
  steps.handle.position = 1;
  steps.handle.hidden(6);
  expectRecordsOfAPass(steps, 7, 2, records.data() + kRecords);
}

TEST(DbgLines, GiveTheNormsOfEveryLayerAndTheWayOfTheEmbedding) {
  const std::string path = model().folder.file("norms");
  Handle handle(model().path);
  const std::vector<float> start = embedding(handle, 9);
  std::vector<std::string> lines;
  {
    const ScopedEnv dbg("QWEN35_DBG", "");
    const ScopedEnv dump("QWEN35_HID_DUMP", path.c_str());
    lines = linesOf([&] { handle.logits(9); });
  }
  const std::vector<DumpRecord> records = kel::test::readHiddenDump(path);
  ASSERT_EQ(kRecords, records.size());
  std::vector<std::string> expected;
  for (size_t l = 0; l < kLayers; ++l) {
    const std::vector<float>& x = l == 0 ? start : records[5 * l - 1].values;
    expected.push_back(formatted("  L%02zu %s |x|=%7.3f |attn|=%.3e |xnorm|=%7.3f", l,
                                 l % 4 == 3 ? "ful" : "lin", norm(x), norm(records[5 * l].values),
                                 0.0));
    expected.push_back(formatted("        |ffn|=%.3e", norm(records[5 * l + 3].values)));
  }
  const std::vector<float>& end = records.back().values;
  expected.push_back(formatted("  final |orig|=%.3f |cur|=%.3f cos(orig,cur)=%.4f", norm(start),
                               norm(end), cosine(start, end)));
  EXPECT_EQ(expected, lines);
}

// The reports of a block come before the line of its layer, and those of the step before those of
// the state.
TEST(AllLines, ComeInTheOrderOfThePass) {
  const ScopedEnv dbg("QWEN35_DBG", "1");
  const ScopedEnv dbg2("QWEN35_DBG2", "1");
  const ScopedEnv dbg3("QWEN35_DBG3", "1");
  const ScopedEnv dbg4("QWEN35_DBG4", "1");
  const ScopedEnv timing("QWEN35_TIMING", "1");
  Handle handle(model().path);
  const std::vector<std::string> lines = linesOf([&] {
    handle.logits(1);
    handle.hidden(2);
  });
  std::vector<std::string> expected;
  const std::vector<std::string> step = {"    lin:", "      wr[0][0..3] =", "      wr[1][0..3] =",
                                         "      wr[2][0..3] =", "      wr[3][0..3] ="};
  expected.insert(expected.end(), step.begin(), step.end());
  expected.push_back("LIN S-pos=0 ");
  for (size_t l = 0; l < kLayers; ++l) {
    if (l == 3) {
      expected.push_back("FULL kvLen=0 qh0: ");
    }
    expected.push_back(formatted("  L%02zu ", l));
    expected.push_back("        |ffn|=");
  }
  expected.push_back("  final |orig|=");
  expected.insert(expected.end(), step.begin(), step.end());
  expected.push_back("[timing] hidden fwd pos=1 ");
  ASSERT_EQ(expected.size(), lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(lines[i].starts_with(expected[i])) << lines[i];
  }
}

TEST(StepReport, OfAPassEndsWithTheNormOfTheAttentionOfLayer0) {
  const std::string path = model().folder.file("step");
  std::vector<std::string> lines;
  {
    const ScopedEnv dbg2("QWEN35_DBG2", "1");
    const ScopedEnv dump("QWEN35_HID_DUMP", path.c_str());
    Handle handle(model().path);
    lines = linesOf([&] { handle.logits(4); });
  }
  ASSERT_EQ(5u, lines.size());
  const double out = norm(kel::test::readHiddenDump(path).at(0).values);
  EXPECT_NE(std::string::npos, lines[0].find(formatted(" |out|=%.3e conv1d", out))) << lines[0];
}

// Milliseconds: no more than the call took, and more than such a pass can take in seconds.
TEST(TimingLine, GivesThePositionAndMilliseconds) {
  const ScopedEnv timing("QWEN35_TIMING", "");
  Handle handle(model().path);
  for (size_t pos = 0; pos < 3; ++pos) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const std::vector<std::string> lines = linesOf([&] { handle.hidden(pos); });
    const double whole = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    ASSERT_EQ(1u, lines.size());
    size_t printedPos = 99;
    double printed = 0;
    ASSERT_EQ(2, std::sscanf(lines[0].c_str(), "[timing] hidden fwd pos=%zu %lf ms", &printedPos,
                             &printed));
    EXPECT_EQ(formatted("[timing] hidden fwd pos=%zu %.1f ms", pos, printed), lines[0]);
    EXPECT_GT(printed, 0.0);
    EXPECT_LE(printed, whole + 0.05);
  }
}

struct States {
  std::vector<float> recurrent;
  std::vector<float> caches;
  std::vector<size_t> positions;

  explicit States(const qwen35::Model& m) {
    for (const Layer& layer : m.layers) {
      recurrent.insert(recurrent.end(), layer.ssmState.begin(), layer.ssmState.end());
      recurrent.insert(recurrent.end(), layer.convState.begin(), layer.convState.end());
      caches.insert(caches.end(), layer.kCache.begin(), layer.kCache.end());
      caches.insert(caches.end(), layer.vCache.begin(), layer.vCache.end());
      if (!layer.isLinear) {
        positions.push_back(layer.pos);
      }
    }
  }
};

// After tokens that every block saw, so that there is something to disturb.
TEST(Ablation, LeavesTheStatesOfSkippedBlocksAsTheyWere) {
  for (const bool keepsFull : {true, false}) {
    Handle handle(model().path, 8);
    handle.hidden(1);
    handle.hidden(2);
    const States before(handle.model);
    const ScopedEnv ablate("QWEN35_ABLATE", keepsFull ? "full" : "lin");
    handle.hidden(3);
    handle.logits(4);
    const States after(handle.model);
    EXPECT_EQ(keepsFull, firstDifference(before.recurrent, after.recurrent).empty());
    EXPECT_EQ(!keepsFull, firstDifference(before.caches, after.caches).empty());
    EXPECT_EQ(std::vector<size_t>(8, keepsFull ? 4 : 2), after.positions);
  }
}

// A skipped block adds nothing; the feed-forward block after it runs.
TEST(Ablation, PassesTheInputOfASkippedBlockOn) {
  for (const bool keepsFull : {true, false}) {
    const std::string path = model().folder.file(keepsFull ? "keeps-full" : "keeps-lin");
    const ScopedEnv ablate("QWEN35_ABLATE", keepsFull ? "full" : "lin");
    const ScopedEnv dump("QWEN35_HID_DUMP", path.c_str());
    Handle handle(model().path, 8);
    handle.logits(3);
    const std::vector<DumpRecord> records = kel::test::readHiddenDump(path);
    ASSERT_EQ(kRecords, records.size());
    std::vector<float> x = embedding(handle, 3);
    for (size_t l = 0; l < kLayers; ++l) {
      const bool isFull = l % 4 == 3;
      EXPECT_EQ(isFull != keepsFull, norm(records[5 * l].values) == 0) << l;
      EXPECT_EQ(isFull != keepsFull, firstDifference(x, records[5 * l + 1].values).empty()) << l;
      EXPECT_NE(0, norm(records[5 * l + 3].values)) << l;
      x = records[5 * l + 4].values;
    }
  }
}

TEST(Ablation, ByAnyOtherValueIsNone) {
  Handle plain(model().path, 8);
  const std::vector<float> hidden = plain.hidden(3);
  const std::vector<float> logits = plain.logits(4);
  for (const char* value : {"", "FULL", "ful", "full ", "fullx", "li", "linear", "Lin", "1"}) {
    const ScopedEnv ablate("QWEN35_ABLATE", value);
    Handle handle(model().path, 8);
    EXPECT_EQ(hidden, handle.hidden(3)) << value;
    EXPECT_EQ(logits, handle.logits(4)) << value;
  }
}

}  // namespace
