#include "qwen35/forward.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/hand_tensors.h"
#include "tests/support/hidden_dump.h"
#include "tests/support/opened_model.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::test::DumpRecord;
using kel::test::Handle;
using kel::test::ModelFile;
using kel::test::RandomModelSpec;
using kel::test::ScopedEnv;

// One file for all tests that take the default model.
const std::string& defaultModel() {
  static const ModelFile file;
  return file.path;
}

bool allZero(const float* values, size_t n) {
  return std::all_of(values, values + n, [](float f) { return f == 0.0f; });
}

TEST(FfnStep, IsDownOfSiluOfGateTimesUp) {
  kel::test::HandTensors tensors;
  qwen35::Layer layer;
  layer.ffnGate = tensors.matrix(2, 2, [](size_t r, size_t c) { return r == c ? 1.0f : 0.0f; });
  layer.ffnUp = tensors.matrix(2, 2, [](size_t, size_t) { return 2.0f; });
  layer.ffnDown = tensors.matrix(2, 2, [](size_t r, size_t) { return r == 0 ? 1.0f : -3.0f; });
  const float xn[2] = {1.0f, -0.5f};
  float out[2] = {99.0f, 99.0f};
  qwen35::ffnStep(2, layer, xn, out);
  // up is 2 * (1 - 0.5) = 1 in both places.
  const double act = 1.0 / (1 + std::exp(-1.0)) - 0.5 / (1 + std::exp(0.5));
  EXPECT_NEAR(act, out[0], 1e-6);
  EXPECT_NEAR(-3 * act, out[1], 1e-6);
}

TEST(Forward, HiddenThenTokenGivesTheLogitsOfTwoTokenCalls) {
  Handle split(defaultModel());
  Handle plain(defaultModel());
  split.hidden(5);
  plain.logits(5);
  EXPECT_EQ(plain.logits(7), split.logits(7));
}

TEST(Forward, AResetModelRepeatsItself) {
  Handle handle(defaultModel());
  handle.hidden(5);
  const std::vector<float> first = handle.logits(7);
  handle.reset();
  handle.hidden(5);
  EXPECT_EQ(first, handle.logits(7));
}

TEST(Forward, AblateFullSkipsLinearBlocksAndLeavesTheirStates) {
  const ModelFile file;
  const std::string dump = file.folder.file("dump");
  const ScopedEnv ablate("QWEN35_ABLATE", "full");
  const ScopedEnv dumpTo("QWEN35_HID_DUMP", dump.c_str());
  Handle handle(file.path);
  handle.logits(3);
  for (const qwen35::Layer& layer : handle.model.layers) {
    EXPECT_TRUE(allZero(layer.ssmState.data(), layer.ssmState.size()));
    EXPECT_TRUE(allZero(layer.convState.data(), layer.convState.size()));
    EXPECT_EQ(layer.isLinear ? 0u : 1u, layer.pos);
  }
  const std::vector<DumpRecord> records = kel::test::readHiddenDump(dump);
  EXPECT_TRUE(allZero(records.at(0).values.data(), 8)) << "attention of layer 0";
  EXPECT_FALSE(allZero(records.at(3).values.data(), 8)) << "feed-forward of layer 0";
  EXPECT_FALSE(allZero(records.at(15).values.data(), 8)) << "attention of layer 3";
}

TEST(Forward, AblateLinSkipsFullBlocks) {
  const ScopedEnv ablate("QWEN35_ABLATE", "lin");
  Handle handle(defaultModel());
  handle.hidden(3);
  EXPECT_EQ(0u, handle.model.layers[3].pos);
  EXPECT_FALSE(allZero(handle.model.layers[0].ssmState.data(), 128 * 128));
}

TEST(Forward, AnyOtherAblateValueRunsEveryBlock) {
  Handle plain(defaultModel());
  const std::vector<float> expected = plain.logits(3);
  for (const char* value : {"", "none", "fullish", "linear"}) {
    const ScopedEnv ablate("QWEN35_ABLATE", value);
    Handle handle(defaultModel());
    EXPECT_EQ(expected, handle.logits(3)) << value;
  }
}

void setFirstFloat(std::vector<kel::test::TensorPlan>& plan, const std::string& name, size_t index,
                   float value) {
  kel::test::TensorPlan& entry = kel::test::planned(plan, name);
  entry.data = kel::test::tensorBytes(entry, 1);
  std::memcpy(entry.data.data() + index * sizeof value, &value, sizeof value);
}

TEST(Forward, ANanWeightReachesEveryLogit) {
  RandomModelSpec spec;
  spec.edit = [](auto& plan) {
    setFirstFloat(plan, "blk.20.ffn_down.weight", 0, std::numeric_limits<float>::quiet_NaN());
  };
  const ModelFile file(spec);
  Handle handle(file.path);
  const std::vector<float> logits = handle.logits(3);
  EXPECT_TRUE(std::all_of(logits.begin(), logits.end(), [](float f) { return std::isnan(f); }));
  const std::vector<float> hidden = handle.hidden(3);
  EXPECT_TRUE(std::all_of(hidden.begin(), hidden.end(), [](float f) { return std::isnan(f); }));
}

TEST(Forward, AnInfinityInOneHeadRowStaysInItsLogit) {
  RandomModelSpec spec;
  spec.edit = [](auto& plan) {
    setFirstFloat(plan, "token_embd.weight", 7 * 8, std::numeric_limits<float>::infinity());
  };
  const ModelFile file(spec);
  Handle handle(file.path);
  const std::vector<float> logits = handle.logits(3);
  for (size_t i = 0; i < logits.size(); ++i) {
    EXPECT_EQ(i != 7, std::isfinite(logits[i])) << i;
  }
}

TEST(Forward, ModelsOfOneKindOfLayerRun) {
  for (const char* kinds : {"L", "F"}) {
    const ModelFile file({.layerKinds = kinds});
    Handle handle(file.path);
    const std::vector<float> logits = handle.logits(3);
    EXPECT_TRUE(std::all_of(logits.begin(), logits.end(), [](float f) { return std::isfinite(f); }))
        << kinds;
  }
}

}  // namespace
