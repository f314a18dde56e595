#include "qwen35/run_check.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/bound_views.h"

namespace {

using kel::QuantType;
using kel::TensorView;
using kel::test::BoundViews;
using kel::test::RandomModelSpec;
using qwen35::Model;

std::string check(BoundViews& file) {
  Model m;
  EXPECT_TRUE(qwen35::initLayers(file.loader, m, 4));
  EXPECT_TRUE(qwen35::bindModel(file.loader, m, 4));
  return qwen35::findUnfitTensor(file.loader, m);
}

// The verdict after one record has been changed.
std::string checkWith(const std::string& name, const std::function<void(TensorView&)>& change,
                      const RandomModelSpec& spec = {}) {
  BoundViews file(spec);
  change(file.view(name));
  return check(file);
}

bool inOneLayerOfEachKind(const std::string& name) {
  return name.starts_with("blk.0.") || name.starts_with("blk.3.");
}

TEST(RunCheck, ModelsOfEveryUsableTypePass) {
  for (const QuantType type :
       {QuantType::F32, QuantType::BF16, QuantType::Q8_0, QuantType::Q4_K, QuantType::Q5_K}) {
    BoundViews file({.hidden = 256, .ffn = 512, .types = {type}, .biases = true});
    EXPECT_EQ("", check(file)) << kel::quantTypeName(type);
  }
}

TEST(RunCheck, EveryTypeWithoutAProductIsNamed) {
  for (const QuantType type :
       {QuantType::F16, QuantType::Q4_0, QuantType::Q6_K, QuantType::IQ4_XS}) {
    EXPECT_EQ(std::string("blk.3.attn_q.weight: is ") + kel::quantTypeName(type) +
                  ", which has no product",
              checkWith("blk.3.attn_q.weight", [&](TensorView& t) { t.type = type; }));
  }
}

TEST(RunCheck, VectorsAndConvolutionTapsAreF32) {
  for (const char* name : {"output_norm.weight", "blk.1.ssm_a", "blk.0.ssm_conv1d.weight"}) {
    EXPECT_EQ(std::string(name) + ": is BF16, needs F32",
              checkWith(name, [](TensorView& t) { t.type = QuantType::BF16; }));
  }
}

TEST(RunCheck, MatricesFitTheFixedShapeAndTheHiddenSize) {
  EXPECT_EQ("blk.3.attn_q.weight: has 4096 rows, needs 8192",
            checkWith("blk.3.attn_q.weight", [](TensorView& t) { t.dims[1] = 4096; }));
  EXPECT_EQ("blk.0.attn_qkv.weight: has 4 columns, needs 8",
            checkWith("blk.0.attn_qkv.weight", [](TensorView& t) { t.dims[0] = 4; }));
  EXPECT_EQ("blk.0.ssm_out.weight: has 9 rows, needs 8",
            checkWith("blk.0.ssm_out.weight", [](TensorView& t) { t.dims[1] = 9; }));
}

TEST(RunCheck, EveryMatrixHasItsRowsChecked) {
  BoundViews names;
  for (const TensorView& view : names.loader.tensors) {
    if (view.rank != 2 || !inOneLayerOfEachKind(view.name)) {
      continue;
    }
    // The width of the feed-forward block is the gate's: its own rows show in the other two.
    const bool isGate = view.name.ends_with("ffn_gate.weight");
    const std::string blamed =
        isGate ? view.name.substr(0, view.name.size() - 11) + "up.weight" : view.name;
    const std::string fault = checkWith(view.name, [](TensorView& t) { t.dims[1] -= 1; });
    EXPECT_TRUE(fault.starts_with(blamed + ": has ")) << view.name << " -> " << fault;
  }
}

TEST(RunCheck, EveryVectorHasItsLengthChecked) {
  BoundViews names({.biases = true});
  for (const TensorView& view : names.loader.tensors) {
    if (view.rank != 1 || !inOneLayerOfEachKind(view.name)) {
      continue;
    }
    EXPECT_EQ(view.name + ": has " + std::to_string(view.dims[0] - 1) + " elements, needs " +
                  std::to_string(view.dims[0]),
              checkWith(view.name, [](TensorView& t) { t.dims[0] -= 1; }, {.biases = true}));
  }
}

TEST(RunCheck, ALongerVectorIsFine) {
  EXPECT_EQ("", checkWith("blk.0.attn_norm.weight", [](TensorView& t) {
              t.dims[0] = 100;
              t.byteSize = 400;
            }));
}

TEST(RunCheck, FeedForwardWidthComesFromTheGate) {
  BoundViews file;
  file.view("blk.2.ffn_gate.weight").dims[1] = 12;
  EXPECT_EQ("blk.2.ffn_up.weight: has 16 rows, needs 12", check(file));
  file.view("blk.2.ffn_up.weight").dims[1] = 12;
  EXPECT_EQ("blk.2.ffn_down.weight: has 16 columns, needs 12", check(file));
  file.view("blk.2.ffn_down.weight").dims[0] = 12;
  EXPECT_EQ("", check(file));
  file.view("blk.2.ffn_gate.weight").dims[1] = 0;
  EXPECT_EQ("blk.2.ffn_gate.weight: has 0 rows, needs 1", check(file));
}

TEST(RunCheck, RowsEndWithTheirBlocks) {
  // 16 columns fit no Q8_0 block; the hidden size itself is that of a table of F32.
  EXPECT_EQ("blk.0.ffn_gate.weight: has rows that end inside a block",
            checkWith("blk.0.ffn_gate.weight", [](TensorView& t) { t.type = QuantType::Q8_0; }));
}

TEST(RunCheck, ConvolutionHasEveryChannelAndAtLeastFourTaps) {
  EXPECT_EQ("blk.0.ssm_conv1d.weight: has 3 columns, needs 4",
            checkWith("blk.0.ssm_conv1d.weight", [](TensorView& t) { t.dims[0] = 3; }));
  EXPECT_EQ("blk.0.ssm_conv1d.weight: has 8191 rows, needs 8192",
            checkWith("blk.0.ssm_conv1d.weight", [](TensorView& t) { t.dims[1] = 8191; }));
  EXPECT_EQ("", checkWith("blk.0.ssm_conv1d.weight", [](TensorView& t) {
              t.dims[0] = 5;
              t.byteSize = 8192 * 5 * 4;
            }));
}

TEST(RunCheck, DataCoversTheRows) {
  EXPECT_EQ("blk.0.attn_qkv.weight: has 262143 bytes, needs 262144",
            checkWith("blk.0.attn_qkv.weight", [](TensorView& t) { t.byteSize -= 1; }));
}

TEST(RunCheck, DataLiesInsideTheWeightSection) {
  const auto move = [](int64_t distance) {
    return [distance](TensorView& t) {
      t.data = reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(t.data) +
                                             static_cast<uintptr_t>(distance));
    };
  };
  const char* const name = "blk.0.attn_qkv.weight";
  const std::string fault = std::string(name) + ": leaves the weight section";
  EXPECT_EQ(fault, checkWith(name, move(-4)));
  EXPECT_EQ(fault, checkWith(name, move(int64_t{1} << 40)));
  EXPECT_EQ(fault, checkWith(name, move(INT64_MIN)));
  EXPECT_EQ(fault, checkWith(name, [](TensorView& t) { t.data = nullptr; }));
  EXPECT_EQ(fault, checkWith(name, [](TensorView& t) { t.byteSize = UINT64_MAX; }));
  EXPECT_EQ("", checkWith("blk.0.ssm_a", move(4)));
}

TEST(RunCheck, FloatsAndHalvesAreAligned) {
  const auto shift = [](TensorView& t) { t.data = static_cast<const uint8_t*>(t.data) + 1; };
  for (const char* name : {"blk.0.ssm_a", "blk.0.ssm_beta.weight"}) {
    EXPECT_EQ(std::string(name) + ": is not aligned to its elements", checkWith(name, shift));
  }
  EXPECT_EQ("blk.0.ssm_beta.weight: is not aligned to its elements",
            checkWith("blk.0.ssm_beta.weight", shift, {.types = {QuantType::BF16}}));
  EXPECT_EQ("", checkWith("blk.0.ssm_beta.weight", shift,
                          {.hidden = 256, .ffn = 256, .types = {QuantType::Q4_K}}));
}

TEST(RunCheck, ShapesThatOverflowAreUnfit) {
  const auto wrap = [](TensorView& t) {
    t.rank = 4;
    t.dims[1] = uint64_t{1} << 32;
    t.dims[2] = uint64_t{1} << 32;
    t.dims[3] = 8192;
  };
  EXPECT_EQ("blk.3.attn_q.weight: has a shape that overflows",
            checkWith("blk.3.attn_q.weight", wrap));
  EXPECT_EQ("blk.3.attn_q_norm.weight: has a shape that overflows",
            checkWith("blk.3.attn_q_norm.weight", wrap));
  EXPECT_EQ("blk.0.ffn_gate.weight: has a shape that overflows",
            checkWith("blk.0.ffn_gate.weight", wrap));
  // 2^62 elements count without wrapping; their bytes do not.
  EXPECT_EQ(
      "blk.0.ffn_gate.weight: has a shape that overflows",
      checkWith("blk.0.ffn_gate.weight", [](TensorView& t) { t.dims[1] = uint64_t{1} << 59; }));
}

TEST(RunCheck, RowsOfHigherRanksMultiply) {
  EXPECT_EQ("", checkWith("blk.3.attn_q.weight", [](TensorView& t) {
              t.rank = 3;
              t.dims[1] = 16;
              t.dims[2] = 512;
            }));
}

TEST(RunCheck, TheEmbeddingTableHasRowsAndColumns) {
  const std::string fault = "token_embd.weight: is no table of 1 to 2147483647 rows";
  EXPECT_EQ(fault, checkWith("token_embd.weight", [](TensorView& t) { t.dims[1] = 0; }));
  EXPECT_EQ(fault, checkWith("token_embd.weight", [](TensorView& t) { t.dims[0] = 0; }));
  EXPECT_EQ(fault,
            checkWith("token_embd.weight", [](TensorView& t) { t.dims[1] = uint64_t{1} << 31; }));
  // The head takes dims[1] rows, so a third dimension has no meaning here.
  EXPECT_EQ("token_embd.weight: has 600 rows, needs 300",
            checkWith("token_embd.weight", [](TensorView& t) {
              t.rank = 3;
              t.dims[2] = 2;
            }));
}

TEST(RunCheck, AQueryBiasNeedsTheOtherTwo) {
  BoundViews file({.biases = true});
  file.remove("blk.7.attn_v.bias");
  EXPECT_EQ("blk.7.attn_v.bias: is missing", check(file));
  file.remove("blk.7.attn_q.bias");
  file.view("blk.7.attn_k.bias").dims[0] = 1;
  EXPECT_EQ("", check(file));
}

TEST(RunCheck, TheFirstFaultInBindingOrderIsNamed) {
  BoundViews file;
  file.view("blk.9.attn_norm.weight").dims[0] = 0;
  file.view("blk.2.ssm_out.weight").dims[0] = 0;
  file.view("blk.2.attn_gate.weight").dims[0] = 0;
  EXPECT_EQ("blk.2.attn_gate.weight: has 0 columns, needs 8", check(file));
}

}  // namespace
