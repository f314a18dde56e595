#include "host/inspect/shape_report.h"

#include <gtest/gtest.h>

#include <string>

#include "container/shape_metadata.h"
#include "container/zym2_writer.h"
#include "host/inspect/container_report.h"
#include "tests/host/model_file.h"
#include "tests/support/family_shapes.h"
#include "tests/support/json_text.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using kel::test::parseOrderedJson;
using Json = nlohmann::ordered_json;

class ShapeReportTest : public testing::Test {
 protected:
  void open(const std::string& message) {
    ASSERT_EQ("", message);
    ASSERT_EQ("", loader.open(path.c_str()).message);
  }
  void writeOdd(bool ownOutput = false) {
    kel::test::RandomModelSpec spec{
        .hidden = 8, .ffn = 16, .vocab = 40, .shape = kel::test::oddShape(), .statesShape = true};
    spec.shape.ownOutput = ownOutput;
    open(kel::test::writeRandomModel(path, spec).message);
  }
  void writeSmall(const std::function<void(kel::ZYM2Writer&)>& more) {
    open(testing_support::writeSmallModel(path, nullptr, "qwen35", more).message);
  }

  kel::test::TempDir folder;
  std::string path = folder.file("model.zym");
  kel::ZYMLoader loader;
};

// Parameters: 5 layers with 400 each, 3 with 6626 of linear and 2 with 7120 of full attention, two
// tables of 320, and the last norm.
TEST_F(ShapeReportTest, WordsSayTheShape) {
  writeOdd(true);
  EXPECT_EQ(
      "model\n"
      "architecture     qwen35\n"
      "layers           5: 3 of linear attention, 2 of full attention\n"
      "hidden size      8\n"
      "feed-forward     16\n"
      "full attention   6 query heads on 2 key/value heads of 40 dimensions, 12 of them rotated "
      "(base 10000)\n"
      "linear attention 9 value heads of 20 dimensions on 3 key heads of 24, 3 taps\n"
      "vocabulary       40\n"
      "output head      its own\n"
      "context          300 positions\n"
      "parameters       36766\n",
      modelText(loader));
}

TEST_F(ShapeReportTest, LargeCountsAreInMillions) {
  writeSmall(nullptr);
  const std::string text = modelText(loader);
  EXPECT_NE(text.find("parameters       1.3 million (1304741)\n"), std::string::npos) << text;
}

TEST_F(ShapeReportTest, JsonHoldsEveryNumber) {
  writeOdd();
  EXPECT_EQ(parseOrderedJson(R"({"isStated": true, "layers": 5, "fullAttentionLayers": [1, 2],
    "predictionLayers": 0, "hidden": 8, "feedForward": 16, "vocabulary": 40, "context": 300,
    "ownOutputHead": false, "queryHeads": 6, "keyValueHeads": 2, "headDimensions": 40,
    "rotatedDimensions": 12, "rotaryBase": 10000.0, "linearKeyHeads": 3, "linearValueHeads": 9,
    "linearKeyDimensions": 24, "linearValueDimensions": 20, "convolutionTaps": 3,
    "normEpsilon": 0.0009765625, "parameters": 36446})"),
            shapeJson(loader));
  EXPECT_EQ(shapeJson(loader), reportJson(loader, "")["shape"]);
}

TEST_F(ShapeReportTest, WithoutMetadataTheSizesAreTheTensors) {
  writeSmall(nullptr);
  const Json shape = shapeJson(loader);
  EXPECT_EQ(false, shape["isStated"]);
  EXPECT_EQ(32, shape["layers"]);
  EXPECT_EQ(1, shape["hidden"]);
  EXPECT_EQ(1, shape["feedForward"]);
  EXPECT_EQ(4, shape["vocabulary"]);
  const std::string text = modelText(loader);
  EXPECT_NE(text.find("24 of linear attention, 8 of full attention (one in 4)"), std::string::npos)
      << text;
  EXPECT_NE(text.find("(the metadata state no shape: it is taken for that of the 4B)\n"),
            std::string::npos)
      << text;
}

TEST_F(ShapeReportTest, AShapeThatCannotBeIsNamedInItsPlace) {
  writeSmall([](kel::ZYM2Writer& writer) { writer.addMetaU32("qwen35.block_count", 3); });
  const std::string fault = "qwen35.context_length is missing from the metadata, or is no u32";
  EXPECT_EQ((Json{{"fault", fault}}), shapeJson(loader));
  EXPECT_EQ("model\narchitecture     qwen35\nshape            none: " + fault + "\n",
            modelText(loader));
}

TEST_F(ShapeReportTest, OriginIsTold) {
  writeSmall([](kel::ZYM2Writer& writer) {
    writer.addMetaStr("general.name", "small\x1b[2J");
    writer.addMetaStr("general.license", std::string(100, 'l'));
    writer.addMetaU32("zym.token.im_end", 1);
    writer.addMetaU32("zym.token.think", 4000);
    writer.addMetaStr("zym.source.format", "GGUF 3");
    writer.addMetaStr("zym.source.files", "a.gguf\nb.gguf");
    writer.addMetaStr("zym.convert.type", "keep");
    writer.addMetaStr("zym.convert.reencoded",
                      "16 ffn_down.weight: Q6_K to Q8_0\n1 token_embd.weight: F16 to Q8_0");
  });
  const std::string text = modelText(loader);
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  const std::string origin =
      "control tokens   <|im_end|> 1, think 4000\n"
      "license          " +
      std::string(80, 'l') +
      " .. (100 bytes)\n"
      "made from        GGUF 3: a.gguf b.gguf\n"
      "stored           keep\n"
      "encoded anew     16 ffn_down.weight: Q6_K to Q8_0\n"
      "                 1 token_embd.weight: F16 to Q8_0\n";
  EXPECT_NE(text.find(origin), std::string::npos) << text;
  EXPECT_NE(summaryText(loader).find(text), std::string::npos);
}

// The layer of multi-token prediction, which is in the file and not among the model's layers.
TEST_F(ShapeReportTest, PredictionLayersAreApart) {
  writeSmall([](kel::ZYM2Writer& writer) {
    kel::writeShape(writer, kel::kFixedShape, {1, 1, 4}, 1);
  });
  EXPECT_EQ(32, shapeJson(loader)["layers"]);
  EXPECT_EQ(1, shapeJson(loader)["predictionLayers"]);
  EXPECT_NE(modelText(loader).find("prediction       1 more for multi-token prediction"),
            std::string::npos);
}

}  // namespace
}  // namespace zym
