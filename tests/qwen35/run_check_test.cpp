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

TEST(RunCheck, EveryTypeWithoutMatmulIsNamed) {
  for (const QuantType type :
       {QuantType::F16, QuantType::Q4_0, QuantType::Q6_K, QuantType::IQ4_XS}) {
    EXPECT_EQ(std::string("blk.3.attn_q.weight: is ") + kel::quantTypeName(type) +
                  ", a type without matmul",
              checkWith("blk.3.attn_q.weight", [&](TensorView& t) { t.type = type; }));
  }
}

// They are read as floats in any case, so neither what the record calls them nor how many bytes
// that would take decides.
TEST(RunCheck, VectorsAndConvolutionTapsHaveAnyLabelAndSize) {
  BoundViews file({.biases = true});
  for (TensorView& view : file.loader.tensors) {
    if (view.rank == 1 || view.name.ends_with("ssm_conv1d.weight")) {
      view.type = QuantType::IQ4_XS;
      view.byteSize = 0;
    }
  }
  EXPECT_EQ("", check(file));
  for (TensorView& view : file.loader.tensors) {
    if (view.rank == 1) {
      view.byteSize = UINT64_MAX;
    }
  }
  EXPECT_EQ("", check(file));
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

// Of a vector what is read counts, four bytes an element, whatever the record says.
TEST(RunCheck, FloatsOfVectorsLieInsideTheWeightSection) {
  BoundViews file;
  const auto weights = kel::zym2::SectionType::WeightData;
  const uint8_t* end = file.loader.reader.sectionData(weights);
  end += file.loader.reader.sectionSize(weights);
  TensorView& decay = file.view("blk.0.ssm_a");  // 32 elements
  decay.type = QuantType::BF16;
  decay.byteSize = 64;
  decay.data = end - 128;
  EXPECT_EQ("", check(file));
  decay.dims[0] = 40;
  EXPECT_EQ("", check(file));
  decay.data = end - 127;
  EXPECT_EQ("blk.0.ssm_a: leaves the weight section", check(file));
  decay.data = nullptr;
  EXPECT_EQ("blk.0.ssm_a: leaves the weight section", check(file));
}

TEST(RunCheck, TapsLieInsideTheWeightSectionWithTheirLongestRows) {
  BoundViews file;
  const auto weights = kel::zym2::SectionType::WeightData;
  const uint64_t bytes = file.loader.reader.sectionSize(weights);
  TensorView& taps = file.view("blk.0.ssm_conv1d.weight");
  taps.data = file.loader.reader.sectionData(weights);
  taps.dims[0] = bytes / 4 / 8192;
  EXPECT_EQ("", check(file));
  taps.dims[0] += 1;
  EXPECT_EQ("blk.0.ssm_conv1d.weight: leaves the weight section", check(file));
  taps.dims[0] = uint64_t{1} << 50;  // 2^63 elements
  EXPECT_EQ("blk.0.ssm_conv1d.weight: has a shape that overflows", check(file));
}

TEST(RunCheck, AnyAddressWillDo) {
  for (const QuantType type : {QuantType::F32, QuantType::BF16, QuantType::Q4_K}) {
    BoundViews file({.hidden = 256, .ffn = 512, .types = {type}, .biases = true});
    for (TensorView& view : file.loader.tensors) {
      // The largest ones end where the weight section does.
      if (view.byteSize < file.loader.reader.sectionSize(kel::zym2::SectionType::WeightData)) {
        view.data = static_cast<const uint8_t*>(view.data) + 1;
      }
    }
    EXPECT_EQ("", check(file)) << kel::quantTypeName(type);
  }
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
