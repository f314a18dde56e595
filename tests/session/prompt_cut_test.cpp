// A prompt that comes in several calls leaves the bits behind that it leaves in one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "session/decode_loop.h"
#include "session/session.h"
#include "tests/support/instrumented.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::QuantType;
using session::Qwen35Session;

// More than a batch, so that some cuts lie in the second one.
constexpr size_t kTokens = qwen35::kBatchTokens + 12;

constexpr size_t kCutStep = kel::test::kInstrumented ? 23 : 1;

class PromptCut : public testing::Test {
 protected:
  PromptCut() {
    const kel::test::TempDir folder;
    const std::string path = folder.file("m.zym");
    const kel::test::RandomModelSpec spec{
        .hidden = 256,
        .ffn = 256,
        .types = {QuantType::Q4_K, QuantType::Q8_0, QuantType::F32},
        .layerKinds = "LF"};
    EXPECT_TRUE(writeRandomModel(path, spec).ok());
    char message[64] = "";
    EXPECT_TRUE(openSession(&session, path.c_str(), message, sizeof message)) << message;
    // One layer of each kind, each with every type of weight: enough where every token is fed more
    // than a hundred times.
    session.model.layers.resize(2);
    session.model.nLayer = 2;
    for (size_t i = 0; i < kTokens; ++i) {
      tokens.push_back(static_cast<int>((37 * i + 11) % 300));
    }
  }

  using Bytes = std::vector<uint8_t>;

  static void append(Bytes& out, const float* values, size_t n) {
    const size_t at = out.size();
    out.resize(at + n * sizeof(float));
    if (n > 0) {
      std::memcpy(out.data() + at, values, n * sizeof(float));
    }
  }

  // Feeds the next tokens in one call; returns the logits.
  Bytes feed(size_t count) {
    const auto part = std::span(tokens).subspan(session.position, count);
    std::vector<float> hidden(session.model.nEmbd);
    std::vector<float> logits(session.model.nVocab);
    EXPECT_TRUE(prefill(&session, {part.begin(), part.end()}, hidden, logits));
    Bytes bits;
    append(bits, logits.data(), logits.size());
    return bits;
  }

  // All that later tokens can see.
  Bytes state() const {
    const qwen35::Model& m = session.model;
    Bytes bits;
    for (const qwen35::Layer& layer : m.layers) {
      append(bits, layer.ssmState.data(), layer.ssmState.size());
      append(bits, layer.convState.data(), layer.convState.size());
      for (size_t g = 0; g < m.nHeadKv && !layer.isLinear; ++g) {
        const size_t first = g * m.maxCtx * m.headDim;
        append(bits, layer.kCache.data() + first, layer.pos * m.headDim);
        append(bits, layer.vCache.data() + first, layer.pos * m.headDim);
      }
    }
    return bits;
  }

  Qwen35Session session;
  std::vector<int> tokens;
};

TEST_F(PromptCut, LeavesNoTrace) {
  const Bytes logits = feed(kTokens);
  const Bytes expectedState = state();

  // The logits behind every token, of which a call gives the last ones.
  session.clearContext();
  std::vector<Bytes> logitsBehind;
  for (size_t i = 0; i < kTokens; ++i) {
    logitsBehind.push_back(feed(1));
  }
  EXPECT_EQ(logits, logitsBehind.back()) << "token by token";
  EXPECT_EQ(expectedState, state()) << "token by token";

  for (size_t cut = 1; cut < kTokens; cut += kCutStep) {
    session.clearContext();
    EXPECT_EQ(logitsBehind[cut - 1], feed(cut)) << cut;
    EXPECT_EQ(logits, feed(kTokens - cut)) << cut;
    EXPECT_TRUE(expectedState == state()) << cut;
  }
}

}  // namespace
