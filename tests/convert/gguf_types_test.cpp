// Every element type that GGUF matrices may have, through whole conversions: type t stands in the
// feed-forward down matrix of block t, whose rows of 256 hold blocks of any format.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include "convert/block_decoders.h"
#include "quant/blocks.h"
#include "tests/convert/converted.h"
#include "tests/convert/reference_blocks.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;
using kel::QuantType;

constexpr size_t kElements = kTinyFeedForward * kTinyHidden;

std::string tensorOf(size_t block) {
  return "blk." + std::to_string(block) + ".ffn_down.weight";
}

// The embedding is of a type of its own: Q4_0, whose nibble order differs from the container's.
class GgufTypes : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared = new TempDir;
    const std::vector<TinyTensor> model = tinyModel(true);
    GgufBuilder file = tinyGguf(model, 30);
    file.alignment = 64;
    file.u32("general.alignment", 64);
    std::mt19937 random(1);
    const auto place = [&](GgufBuilder::Tensor& tensor, const ReferenceFormat& format, size_t n) {
      tensor.type = format.ggufType;
      tensor.data = randomBlocks(format, n, random);
    };
    for (size_t i = 0; i < referenceFormats().size(); ++i) {
      place(tensorNamed(file, tensorOf(i)), referenceFormats()[i], kElements);
    }
    place(tensorNamed(file, "token_embd.weight"), formatNamed("Q4_0"), kTinyHidden * kTinyVocab);
    source = new GgufBuilder(file);
    file.write(shared->file("types.gguf"));
  }
  static void TearDownTestSuite() {
    delete source;
    delete shared;
  }

  static TempDir* shared;
  static GgufBuilder* source;
};

TempDir* GgufTypes::shared = nullptr;
GgufBuilder* GgufTypes::source = nullptr;

TEST_F(GgufTypes, DecodeAsDefined) {
  kel::convert::StorageChoice storage;
  storage.type = QuantType::F32;
  const Converted converted(shared->file("types.gguf"), storage);
  for (size_t i = 0; i < referenceFormats().size(); ++i) {
    const ReferenceFormat& format = referenceFormats()[i];
    const std::vector<double> expected = format.decodeAll(tensorNamed(*source, tensorOf(i)).data);
    const auto* values = static_cast<const float*>(converted.tensor(tensorOf(i)).data);
    for (size_t k = 0; k < kElements; ++k) {
      ASSERT_NEAR(expected[k], values[k], 1e-5 * (1 + std::abs(expected[k])))
          << format.name << " element " << k;
    }
  }
}

std::string typeOf(const std::string& source) {
  static const std::map<std::string, std::string> kTypes = {
      {"Q2_K", "Q4_K"}, {"Q4_0", "Q4_K"}, {"Q4_1", "Q4_K"}, {"Q3_K", "Q5_K"}, {"MXFP4", "Q5_K"}};
  const auto found = kTypes.find(source);
  return found == kTypes.end() ? "Q8_0" : found->second;
}

TEST_F(GgufTypes, KeepWhatProductsAcceptAndReencodeTheRest) {
  const Converted converted(shared->file("types.gguf"));
  for (size_t i = 0; i < referenceFormats().size(); ++i) {
    const ReferenceFormat& format = referenceFormats()[i];
    const kel::TensorView& view = converted.tensor(tensorOf(i));
    const Bytes& stored = tensorNamed(*source, tensorOf(i)).data;
    if (format.kept) {
      EXPECT_STREQ(format.name, quantTypeName(view.type));
      EXPECT_EQ(stored, converted.bytes(tensorOf(i))) << format.name;
      continue;
    }
    const std::vector<double> expected = format.decodeAll(stored);
    const std::string type = quantTypeName(view.type);
    EXPECT_EQ(typeOf(format.name), type) << format.name;
    if (type != "Q8_0") {
      const std::vector<double> values = formatNamed(type).decodeAll(converted.bytes(tensorOf(i)));
      double error = 0;
      double norm = 0;
      for (size_t k = 0; k < kElements; ++k) {
        error += (values[k] - expected[k]) * (values[k] - expected[k]);
        norm += expected[k] * expected[k];
      }
      EXPECT_LT(std::sqrt(error / norm), 0.1) << format.name;
      continue;
    }
    std::vector<float> values(kElements);
    kel::quant::dequantQ80(view.data, values.data(), kElements);
    for (size_t k = 0; k < kElements; ++k) {
      double largest = 0;
      for (size_t j = k / 32 * 32; j < k / 32 * 32 + 32; ++j) {
        largest = std::max(largest, std::abs(expected[j]));
      }
      // Half a step, and the rounding of the scale to half precision.
      ASSERT_NEAR(expected[k], values[k], largest * (0.5 / 127 + 1e-3) + 1e-7)
          << format.name << " element " << k;
    }
  }
}

TEST_F(GgufTypes, SummarySaysWhyATypeChanged) {
  const Converted converted(shared->file("types.gguf"));
  std::map<std::string, std::string> reasons;
  for (const auto& group : converted.result.summary.groups) {
    if (group.name == "ffn_down.weight") {
      reasons[group.sourceType] = group.reason;
    }
  }
  EXPECT_EQ(
      "matrix products cannot use Q6_K; Q5_K would lose precision; quality stays that of Q6_K",
      reasons["Q6_K"]);
  EXPECT_EQ("matrix products cannot use Q3_K; Q5_K keeps its precision; quality stays that of Q3_K",
            reasons["Q3_K"]);
  EXPECT_EQ("matrix products cannot use F16", reasons["F16"]);
  EXPECT_EQ("", reasons["Q4_K"]);
}

TEST_F(GgufTypes, TypesThatCannotBeDecodedAreNamed) {
  GgufBuilder file = tinyGguf(tinyModel(false), 30);
  GgufBuilder::Tensor& tensor = tensorNamed(file, tensorOf(2));
  for (const auto& [type, blockBytes, name] :
       {std::tuple{16U, 66U, "IQ2_XXS (2 bits, from a table of codes)"},
        std::tuple{21U, 110U, "IQ3_S (3 bits, from a table of codes)"},
        std::tuple{29U, 56U, "IQ1_M (under 2 bits, from a table of codes)"},
        std::tuple{34U, 0U, "TQ1_0 (ternary numbers)"},
        std::tuple{40U, 0U, "NVFP4 (4-bit floats with 8-bit scales)"},
        std::tuple{26U, 1024U, "I32 (whole numbers)"},
        std::tuple{28U, 2048U, "F64 (64-bit floats)"},
        std::tuple{15U, 292U, "Q8_K (meant for intermediate results)"},
        std::tuple{4U, 0U, "4 (unknown)"}, std::tuple{41U, 0U, "41 (unknown)"}}) {
    tensor.type = type;
    tensor.holeBytes = kElements / 256 * blockBytes;
    file.write(shared->file("odd.gguf"));
    EXPECT_EQ("blk.2.ffn_down.weight has the element type " + std::string(name) +
                  ", which cannot be decoded; choose a file in F32, F16, BF16, Q4_0 to Q8_0, Q2_K "
                  "to Q6_K, IQ4_NL, IQ4_XS or MXFP4",
              refusal(shared->file("odd.gguf")));
  }
}

TEST(DecodeMXFP4, EveryCodeAtEverySharedExponent) {
  constexpr double kMagnitudes[] = {0, 0.5, 1, 1.5, 2, 3, 4, 6};
  uint8_t block[17];
  for (int j = 0; j < 16; ++j) {
    block[1 + j] = static_cast<uint8_t>(j | (15 - j) << 4);
  }
  for (int exponent = 0; exponent < 256; ++exponent) {
    block[0] = static_cast<uint8_t>(exponent);
    float values[32];
    kel::convert::decodeMXFP4(block, values, 32);
    for (int j = 0; j < 32; ++j) {
      const int code = j < 16 ? j : 31 - j;
      // Beyond binary32 lies 2^128: an infinity.
      const auto magnitude = static_cast<float>(std::ldexp(kMagnitudes[code & 7], exponent - 127));
      const float expected = code < 8 ? magnitude : -magnitude;
      ASSERT_TRUE(exponent == 255 ? std::isnan(values[j]) : values[j] == expected)
          << exponent << " " << j << ": " << values[j];
    }
  }
}

TEST_F(GgufTypes, NanAsASharedExponentIsRefused) {
  std::mt19937 random(4);
  const ReferenceFormat& mxfp4 = formatNamed("MXFP4");
  GgufBuilder file = *source;
  GgufBuilder::Tensor& tensor = tensorNamed(file, tensorOf(3));
  tensor.type = mxfp4.ggufType;
  tensor.data = randomBlocks(mxfp4, kElements, random);
  tensor.data[17 * 9] = 255;
  file.write(shared->file("nan.gguf"));
  const std::string message = refusal(shared->file("nan.gguf"));
  EXPECT_EQ(0U, message.find("blk.3.ffn_down.weight holds a value")) << message;
  EXPECT_NE(std::string::npos, message.find("not finite")) << message;
}

// One block holds all heads: their order cannot be changed without decoding it.
TEST_F(GgufTypes, ABlockOfHeadsInGroupedOrderIsRefused) {
  std::mt19937 random(2);
  GgufBuilder file = tinyGguf(tinyModel(true), 30);
  const ReferenceFormat& q80 = formatNamed("Q8_0");
  GgufBuilder::Tensor& bias = tensorNamed(file, "blk.0.ssm_dt.bias");
  bias.type = q80.ggufType;
  bias.data = randomBlocks(q80, 32, random);
  file.write(shared->file("tiled_bias.gguf"));
  EXPECT_TRUE(Converted(shared->file("tiled_bias.gguf")).result.status.ok());
  file.boolean("qwen35.ssm.v_head_reordered", false);
  file.write(shared->file("grouped_bias.gguf"));
  EXPECT_EQ(
      "blk.0.ssm_dt.bias has the element type Q8_0; a vector in grouped head order must be F32, "
      "F16 "
      "or BF16",
      refusal(shared->file("grouped_bias.gguf")));
}

TEST_F(GgufTypes, GroupedColumnsSplitSuperBlocks) {
  std::mt19937 random(2);
  GgufBuilder file = tinyGguf(tinyModel(true), 30);
  file.boolean("qwen35.ssm.v_head_reordered", false);
  const ReferenceFormat& q4k = formatNamed("Q4_K");
  const ReferenceFormat& q80 = formatNamed("Q8_0");
  GgufBuilder::Tensor& split = tensorNamed(file, "blk.0.ssm_out.weight");
  split.type = q4k.ggufType;
  split.data = randomBlocks(q4k, 4096 * kTinyHidden, random);
  GgufBuilder::Tensor& whole = tensorNamed(file, "blk.1.ssm_out.weight");
  whole.type = q80.ggufType;
  whole.data = randomBlocks(q80, 4096 * kTinyHidden, random);
  file.write(shared->file("split.gguf"));
  const Converted converted(shared->file("split.gguf"));
  EXPECT_EQ(QuantType::Q8_0, converted.tensor("blk.0.ssm_out.weight").type);

  // 128 columns are four blocks of Q8_0, which move as they are: tiled head 16 is grouped head 1.
  const Bytes moved = converted.bytes("blk.1.ssm_out.weight");
  EXPECT_EQ(Bytes(whole.data.begin() + 4 * 34, whole.data.begin() + 8 * 34),
            Bytes(moved.begin() + 16 * 4 * 34, moved.begin() + 17 * 4 * 34));
}

}  // namespace
