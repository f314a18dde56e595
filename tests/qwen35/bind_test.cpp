// initLayers and bindModel.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "qwen35/model.h"
#include "tests/support/bound_views.h"

namespace {

using kel::test::BoundViews;
using qwen35::Layer;
using qwen35::Model;

constexpr size_t kContext = 16;

bool allZero(const qwen35::StateBuffer& buffer) {
  return std::all_of(buffer.begin(), buffer.end(), [](float f) { return f == 0.0f; });
}

TEST(InitLayers, BindsEveryTensorOfBothKindsAndSizesTheirState) {
  BoundViews file({.biases = true});
  Model m;
  ASSERT_TRUE(qwen35::initLayers(file.loader, m, kContext));
  ASSERT_EQ(32u, m.layers.size());
  EXPECT_EQ(32u, m.nLayer);

  const Layer& linear = m.layers[0];
  EXPECT_TRUE(linear.isLinear);
  EXPECT_EQ(&file.view("blk.0.attn_norm.weight"), linear.attnNorm);
  EXPECT_EQ(&file.view("blk.0.post_attention_norm.weight"), linear.postAttnNorm);
  EXPECT_EQ(&file.view("blk.0.attn_qkv.weight"), linear.attnQkv);
  EXPECT_EQ(&file.view("blk.0.attn_gate.weight"), linear.attnGate);
  EXPECT_EQ(&file.view("blk.0.ssm_beta.weight"), linear.ssmBeta);
  EXPECT_EQ(&file.view("blk.0.ssm_alpha.weight"), linear.ssmAlpha);
  EXPECT_EQ(&file.view("blk.0.ssm_dt.bias"), linear.ssmDtBias);
  EXPECT_EQ(&file.view("blk.0.ssm_a"), linear.ssmA);
  EXPECT_EQ(&file.view("blk.0.ssm_conv1d.weight"), linear.ssmConv1d);
  EXPECT_EQ(&file.view("blk.0.ssm_norm.weight"), linear.ssmNorm);
  EXPECT_EQ(&file.view("blk.0.ssm_out.weight"), linear.ssmOut);
  EXPECT_EQ(32u * 128 * 128, linear.ssmState.size());
  EXPECT_EQ(8192u * 3, linear.convState.size());
  EXPECT_TRUE(linear.kCache.empty() && linear.vCache.empty());
  EXPECT_TRUE(allZero(linear.ssmState) && allZero(linear.convState));

  const Layer& full = m.layers[31];
  EXPECT_FALSE(full.isLinear);
  EXPECT_EQ(&file.view("blk.31.attn_q.weight"), full.attnQ);
  EXPECT_EQ(&file.view("blk.31.attn_k.weight"), full.attnK);
  EXPECT_EQ(&file.view("blk.31.attn_v.weight"), full.attnV);
  EXPECT_EQ(&file.view("blk.31.attn_output.weight"), full.attnOutput);
  EXPECT_EQ(&file.view("blk.31.attn_q_norm.weight"), full.attnQNorm);
  EXPECT_EQ(&file.view("blk.31.attn_k_norm.weight"), full.attnKNorm);
  EXPECT_EQ(&file.view("blk.31.attn_q.bias"), full.attnQBias);
  EXPECT_EQ(&file.view("blk.31.attn_k.bias"), full.attnKBias);
  EXPECT_EQ(&file.view("blk.31.attn_v.bias"), full.attnVBias);
  EXPECT_EQ(&file.view("blk.31.ffn_gate.weight"), full.ffnGate);
  EXPECT_EQ(&file.view("blk.31.ffn_up.weight"), full.ffnUp);
  EXPECT_EQ(&file.view("blk.31.ffn_down.weight"), full.ffnDown);
  EXPECT_EQ(4u * kContext * 256, full.kCache.size());
  EXPECT_EQ(4u * kContext * 256, full.vCache.size());
  EXPECT_TRUE(full.ssmState.empty() && full.convState.empty());
  EXPECT_TRUE(allZero(full.kCache) && allZero(full.vCache));
  EXPECT_EQ(0u, full.pos);
}

TEST(InitLayers, BlockFiveWithoutItsUpProjectionFails) {
  BoundViews file;
  file.remove("blk.5.ffn_up.weight");
  Model m;
  EXPECT_FALSE(qwen35::initLayers(file.loader, m, kContext));
}

TEST(InitLayers, AnyMissingRequiredTensorFails) {
  const char* const required[] = {"blk.0.attn_norm.weight",   "blk.0.post_attention_norm.weight",
                                  "blk.0.ffn_gate.weight",    "blk.0.ffn_down.weight",
                                  "blk.0.attn_qkv.weight",    "blk.0.attn_gate.weight",
                                  "blk.0.ssm_beta.weight",    "blk.0.ssm_alpha.weight",
                                  "blk.0.ssm_dt.bias",        "blk.0.ssm_conv1d.weight",
                                  "blk.0.ssm_norm.weight",    "blk.3.attn_q.weight",
                                  "blk.3.attn_k.weight",      "blk.3.attn_v.weight",
                                  "blk.3.attn_output.weight", "blk.3.attn_q_norm.weight",
                                  "blk.3.attn_k_norm.weight"};
  for (const char* name : required) {
    BoundViews file;
    file.remove(name);
    Model m;
    EXPECT_FALSE(qwen35::initLayers(file.loader, m, kContext)) << name;
  }
}

TEST(InitLayers, ABlockWithSsmOutThatLacksSsmAFails) {
  BoundViews file;
  file.remove("blk.4.ssm_a");
  Model m;
  EXPECT_FALSE(qwen35::initLayers(file.loader, m, kContext));
}

TEST(InitLayers, ABlockWithoutSsmOutIsFullAttentionWhateverElseItHas) {
  BoundViews file;
  file.copy("blk.0.ssm_a", "blk.3.ssm_a");
  file.copy("blk.0.attn_qkv.weight", "blk.3.attn_qkv.weight");
  Model m;
  ASSERT_TRUE(qwen35::initLayers(file.loader, m, kContext));
  EXPECT_FALSE(m.layers[3].isLinear);
  EXPECT_EQ(nullptr, m.layers[3].ssmA);
  EXPECT_EQ(nullptr, m.layers[3].attnQkv);
}

TEST(InitLayers, AFullLayerWithoutBiasesBindsWithNullFields) {
  BoundViews file;
  Model m;
  ASSERT_TRUE(qwen35::initLayers(file.loader, m, kContext));
  EXPECT_EQ(nullptr, m.layers[3].attnQBias);
  EXPECT_EQ(nullptr, m.layers[3].attnKBias);
  EXPECT_EQ(nullptr, m.layers[3].attnVBias);
}

TEST(InitLayers, MoreThan32BlocksBindTheFirst32) {
  BoundViews file({.blocks = 34});
  Model m;
  ASSERT_TRUE(qwen35::initLayers(file.loader, m, kContext));
  EXPECT_EQ(32u, m.layers.size());
  EXPECT_EQ(32u, m.nLayer);
}

TEST(InitLayers, FewerThan32BlocksFail) {
  BoundViews file({.blocks = 31});
  Model m;
  EXPECT_FALSE(qwen35::initLayers(file.loader, m, kContext));
}

TEST(BindModel, TakesHiddenSizeAndVocabularyFromTheEmbeddingTable) {
  BoundViews file({.hidden = 24, .vocab = 321});
  Model m;
  ASSERT_TRUE(qwen35::initLayers(file.loader, m, kContext));
  ASSERT_TRUE(qwen35::bindModel(file.loader, m, kContext));
  EXPECT_EQ(&file.view("token_embd.weight"), m.tokEmbd);
  EXPECT_EQ(&file.view("output_norm.weight"), m.outputNorm);
  EXPECT_EQ(24u, m.nEmbd);
  EXPECT_EQ(321u, m.nVocab);
  EXPECT_EQ(kContext, m.maxCtx);
  EXPECT_EQ(32u, m.nLayer);
}

TEST(BindModel, EitherMissingTensorFails) {
  for (const char* name : {"token_embd.weight", "output_norm.weight"}) {
    BoundViews file;
    file.remove(name);
    Model m;
    EXPECT_TRUE(qwen35::initLayers(file.loader, m, kContext));
    EXPECT_FALSE(qwen35::bindModel(file.loader, m, kContext)) << name;
  }
}

TEST(Model, HasTheFixedShapeOfTheFamily) {
  const Model m;
  EXPECT_EQ(16u, m.nHead);
  EXPECT_EQ(4u, m.nHeadKv);
  EXPECT_EQ(256u, m.headDim);
  EXPECT_EQ(64u, m.ropeDim);
  EXPECT_EQ(128u, m.ssmDState);
  EXPECT_EQ(16u, m.ssmGroups);
  EXPECT_EQ(32u, m.ssmHeads);
  EXPECT_EQ(4096u, m.ssmInner);
  EXPECT_EQ(4u, m.convKernel);
}

}  // namespace
