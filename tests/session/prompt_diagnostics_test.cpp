// The diagnostics of the forward pass see every token of a prompt, and its switches change every
// one, whatever way the prompt is fed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "session/decode_loop.h"
#include "session/session.h"
#include "tests/support/hidden_dump.h"
#include "tests/support/opened_model.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::test::Handle;
using kel::test::ModelFile;
using kel::test::ScopedEnv;
using qwen35::Layer;

constexpr size_t kHeadFloats = 256;

// One file for all tests: layers 3, 7, ... are full attention.
const ModelFile& model() {
  static const ModelFile file;
  return file;
}

std::vector<int> prompt(size_t n) {
  std::vector<int> tokens(n);
  std::iota(tokens.begin(), tokens.end(), 10);
  return tokens;
}

struct Session {
  Session() {
    char message[64] = "";
    EXPECT_TRUE(openSession(&session, model().path.c_str(), message, sizeof message)) << message;
  }

  void feed(const std::vector<int>& tokens) {
    std::vector<float> hidden(session.model.nEmbd);
    std::vector<float> logits(session.model.nVocab);
    EXPECT_TRUE(prefill(&session, tokens, hidden, logits));
  }

  std::vector<std::string> linesOf(const std::vector<int>& tokens) {
    testing::internal::CaptureStderr();
    feed(tokens);
    std::istringstream text(testing::internal::GetCapturedStderr());
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  const Layer& layer(size_t l) const { return session.model.layers[l]; }

  session::Qwen35Session session;
};

// The same tokens by themselves.
struct Singles {
  explicit Singles(const std::vector<int>& tokens) : handle(model().path) {
    for (const int token : tokens) {
      handle.hidden(static_cast<size_t>(token));
    }
  }

  const Layer& layer(size_t l) const { return handle.model.layers[l]; }

  Handle handle;
};

double norm(const float* x, size_t n) {
  double squares = 0;
  for (size_t i = 0; i < n; ++i) {
    squares += static_cast<double>(x[i]) * static_cast<double>(x[i]);
  }
  return std::sqrt(squares);
}

// |a - b| / |a|.
double distance(const float* a, const float* b, size_t n) {
  std::vector<float> difference(n);
  std::transform(a, a + n, b, difference.begin(), std::minus<>());
  return norm(difference.data(), n) / norm(a, n);
}

bool allZero(const float* begin, const float* end) {
  return std::all_of(begin, end, [](float f) { return f == 0.0f; });
}

// The numbers of a step's line up to the record of the convolution.
std::vector<double> stepFields(const std::string& line) {
  std::vector<double> n(8);
  EXPECT_EQ(8, std::sscanf(line.c_str(),
                           "    lin: |qkv|=%lf |z|=%lf |conv|=%lf bv0=%lf av0=%lf |oTpre|=%lf "
                           "|oT|=%lf |out|=%lf conv1d",
                           &n[0], &n[1], &n[2], &n[3], &n[4], &n[5], &n[6], &n[7]))
      << line;
  return n;
}

TEST(PromptDiagnostics, StepReportIsPrintedForEveryToken) {
  const ScopedEnv dbg2("QWEN35_DBG2", "");
  const std::vector<int> tokens = prompt(5);
  const std::vector<std::string> lines = Session().linesOf(tokens);
  testing::internal::CaptureStderr();
  const Singles singles(tokens);
  std::istringstream expected(testing::internal::GetCapturedStderr());
  ASSERT_EQ(25u, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    std::string line;
    ASSERT_TRUE(std::getline(expected, line));
    if (i % 5 != 0) {
      EXPECT_EQ(line, lines[i]);
      continue;
    }
    const std::vector<double> want = stepFields(line);
    const std::vector<double> got = stepFields(lines[i]);
    for (size_t field = 0; field < want.size(); ++field) {
      EXPECT_NEAR(want[field], got[field], 2e-3 * std::abs(want[field]) + 1e-3) << lines[i];
    }
  }
}

TEST(PromptDiagnostics, StateReportIsPrintedAtEveryEighthPosition) {
  const ScopedEnv dbg4("QWEN35_DBG4", "");
  Session session;
  const std::vector<std::string> lines = session.linesOf(prompt(17));
  ASSERT_EQ(3u, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(lines[i].starts_with("LIN S-pos=" + std::to_string(8 * i) + " ")) << lines[i];
  }
  const Layer& layer = session.layer(0);
  char last[96];
  std::snprintf(last, sizeof last, "LIN S-pos=16 |S|tot %.4e head0 %.4e ",
                norm(layer.ssmState.data(), layer.ssmState.size()),
                norm(layer.ssmState.data(), 128 * 128));
  EXPECT_TRUE(lines[2].starts_with(last)) << lines[2];
}

TEST(PromptDiagnostics, ScoreReportIsPrintedAtEveryEighthPosition) {
  const ScopedEnv dbg3("QWEN35_DBG3", "");
  const std::vector<std::string> lines = Session().linesOf(prompt(18));
  ASSERT_EQ(3u, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(lines[i].starts_with("FULL kvLen=" + std::to_string(8 * i) + " ")) << lines[i];
    EXPECT_TRUE(lines[i].ends_with(" nTok " + std::to_string(8 * i + 1))) << lines[i];
  }
}

TEST(PromptDiagnostics, PositionsGoOnInTheNextPrompt) {
  const ScopedEnv dbg3("QWEN35_DBG3", "1");
  const ScopedEnv dbg4("QWEN35_DBG4", "1");
  Session session;
  EXPECT_EQ(2u, session.linesOf(prompt(6)).size());
  const std::vector<std::string> lines = session.linesOf(prompt(5));
  ASSERT_EQ(2u, lines.size());
  EXPECT_TRUE(lines[0].starts_with("LIN S-pos=8 ")) << lines[0];
  EXPECT_TRUE(lines[1].starts_with("FULL kvLen=8 ")) << lines[1];
}

TEST(PromptDiagnostics, EveryPassButTheLastIsTimed) {
  const ScopedEnv timing("QWEN35_TIMING", "");
  const std::vector<std::string> lines = Session().linesOf(prompt(5));
  ASSERT_EQ(4u, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(lines[i].starts_with("[timing] hidden fwd pos=" + std::to_string(i) + " "))
        << lines[i];
  }
}

TEST(PromptDiagnostics, NormsAndDumpAreOfTheLastTokenAlone) {
  const kel::test::TempDir folder;
  const std::string path = folder.file("dump");
  const ScopedEnv dbg("QWEN35_DBG", "");
  const ScopedEnv dump("QWEN35_HID_DUMP", path.c_str());
  EXPECT_EQ(0u, Session().linesOf(prompt(5)).size());
  const auto records = kel::test::readHiddenDump(path);
  ASSERT_EQ(161u, records.size());
  EXPECT_EQ(4u, records.front().pos);
  EXPECT_EQ(65u, Session().linesOf(prompt(1)).size());
}

TEST(PromptSwitches, AblateFullSkipsTheLinearBlocksOfEveryToken) {
  const std::vector<int> tokens = prompt(5);
  const Singles plain(tokens);
  const ScopedEnv ablate("QWEN35_ABLATE", "full");
  const Singles expected(tokens);
  Session ablated;
  ablated.feed(tokens);
  for (size_t l = 0; l < 32; ++l) {
    const Layer& layer = ablated.layer(l);
    EXPECT_TRUE(allZero(layer.ssmState.begin(), layer.ssmState.end())) << l;
    EXPECT_TRUE(allZero(layer.convState.begin(), layer.convState.end())) << l;
    EXPECT_EQ(layer.isLinear ? 0u : tokens.size(), layer.pos) << l;
  }
  for (size_t p = 0; p < tokens.size(); ++p) {
    const float* value = ablated.layer(3).vCache.data() + p * kHeadFloats;
    const size_t at = p * kHeadFloats;
    EXPECT_LT(distance(expected.layer(3).vCache.data() + at, value, kHeadFloats), 1e-4) << p;
    EXPECT_GT(distance(plain.layer(3).vCache.data() + at, value, kHeadFloats), 1e-2) << p;
  }
}

TEST(PromptSwitches, AblateLinSkipsTheFullBlocksOfEveryToken) {
  const std::vector<int> tokens = prompt(5);
  const Singles plain(tokens);
  const ScopedEnv ablate("QWEN35_ABLATE", "lin");
  const Singles expected(tokens);
  Session ablated;
  ablated.feed(tokens);
  for (size_t l = 3; l < 32; l += 4) {
    const Layer& layer = ablated.layer(l);
    EXPECT_EQ(0u, layer.pos) << l;
    EXPECT_TRUE(allZero(layer.kCache.begin(), layer.kCache.end())) << l;
    EXPECT_TRUE(allZero(layer.vCache.begin(), layer.vCache.end())) << l;
  }
  const Layer& layer = ablated.layer(31 - 1);
  const size_t n = layer.ssmState.size();
  EXPECT_LT(distance(expected.layer(30).ssmState.data(), layer.ssmState.data(), n), 1e-4);
  EXPECT_GT(distance(plain.layer(30).ssmState.data(), layer.ssmState.data(), n), 1e-2);
}

TEST(PromptSwitches, AblationLeavesTheStatesOfSkippedBlocks) {
  for (const bool keepsFull : {true, false}) {
    Session session;
    session.feed(prompt(3));
    const auto copy = [&](const auto& buffer) {
      return std::vector<float>(buffer.begin(), buffer.end());
    };
    const std::vector<float> recurrent = copy(session.layer(4).ssmState);
    const std::vector<float> history = copy(session.layer(4).convState);
    const ScopedEnv ablate("QWEN35_ABLATE", keepsFull ? "full" : "lin");
    session.feed(prompt(4));
    EXPECT_EQ(keepsFull, recurrent == copy(session.layer(4).ssmState));
    EXPECT_EQ(keepsFull, history == copy(session.layer(4).convState));
    EXPECT_EQ(keepsFull ? 7u : 3u, session.layer(3).pos);
    const float* fourth = session.layer(3).kCache.data() + 3 * kHeadFloats;
    EXPECT_EQ(!keepsFull, allZero(fourth, fourth + kHeadFloats));
  }
}

TEST(PromptSwitches, NodecayKeepsTheStateOfEveryToken) {
  const std::vector<int> tokens = prompt(5);
  const Singles plain(tokens);
  const ScopedEnv noDecay("QWEN35_NODECAY", "");
  const Singles expected(tokens);
  Session session;
  session.feed(tokens);
  for (const size_t l : {0, 30}) {
    const float* state = session.layer(l).ssmState.data();
    const size_t n = session.layer(l).ssmState.size();
    EXPECT_LT(distance(expected.layer(l).ssmState.data(), state, n), 1e-4) << l;
    EXPECT_GT(distance(plain.layer(l).ssmState.data(), state, n), 1e-2) << l;
  }
}

}  // namespace
