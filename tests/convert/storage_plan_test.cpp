// Plans of types by pattern: how they are read, and what they choose.
#include "convert/storage_plan.h"

#include <gtest/gtest.h>

#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;
using kel::QuantType;
using kel::convert::ConvertOptions;
using kel::convert::ConvertResult;
using kel::convert::PlanRule;
using kel::convert::readStoragePlan;

class StoragePlan : public testing::Test {
 protected:
  std::string read(const std::string& text, std::vector<PlanRule>& rules) const {
    writeFile(path, Bytes(text.begin(), text.end()));
    return readStoragePlan(path, rules).message;
  }
  std::string faultOf(const std::string& text) const {
    std::vector<PlanRule> rules;
    return read(text, rules);
  }

  // A model of few layers, so that several plans may be tried on it.
  ConvertResult convert(const std::string& text, const std::string& target = "") const {
    TinyShape shape;
    shape.layers = 4;
    tinyGguf(tinyModel(true, shape), 30, shape).write(folder.file("model.gguf"));
    ConvertOptions options;
    options.source = folder.file("model.gguf");
    options.target = target;
    options.dryRun = target.empty();
    options.storage.type = QuantType::F32;
    EXPECT_EQ("", read(text, options.storage.plan));
    kel::convert::ProgressSink quiet;
    ConvertResult result = kel::convert::convertModel(options, quiet);
    EXPECT_EQ("", result.status.message);
    return result;
  }

  TempDir folder;
  std::string path = folder.file("types.plan");
};

TEST_F(StoragePlan, LinesArePatternsAndTypes) {
  std::vector<PlanRule> rules;
  ASSERT_EQ("", read("# of mine\n\n  a.*\tQ5_K  # why\r\n*\tbf16", rules));
  ASSERT_EQ(2U, rules.size());
  EXPECT_EQ("a.*", rules[0].pattern);
  EXPECT_EQ(QuantType::Q5_K, rules[0].type);
  EXPECT_EQ("*", rules[1].pattern);
  EXPECT_EQ(QuantType::BF16, rules[1].type);
  EXPECT_EQ("a.* q5_k\n* bf16", planText(rules));
}

TEST_F(StoragePlan, FaultsNameFileAndLine) {
  EXPECT_EQ(path + ":3: a line is a pattern and a type, as in \"*.ffn_down.weight q5_k\"",
            faultOf("a q8_0\n\nb\n"));
  EXPECT_EQ(path + ":1: a line is a pattern and a type, as in \"*.ffn_down.weight q5_k\"",
            faultOf("a q8_0 b"));
  EXPECT_EQ(path + ":2: \"q7_k\" is not a type that matrices are stored in",
            faultOf("a q8_0\nb q7_k"));
  EXPECT_EQ(path + " holds no line with a pattern and a type", faultOf("# nothing\n"));
  std::vector<PlanRule> rules;
  EXPECT_EQ("cannot read " + folder.file("none") + ": No such file or directory",
            readStoragePlan(folder.file("none"), rules).message);
}

TEST_F(StoragePlan, TheFirstMatchCountsAndTheRestIsAsAskedFor) {
  const std::string target = folder.file("model.zym");
  convert(
      "blk.[12].ffn_down.weight q5_k\n"
      "blk.?.ffn_down.weight q4_k\n"
      "*embd* bf16\n",
      target);
  kel::ZYMLoader loader;
  ASSERT_TRUE(loader.open(target.c_str()).ok());
  const auto typeOf = [&](const char* name) { return loader.findTensor(name)->type; };
  EXPECT_EQ(QuantType::Q4_K, typeOf("blk.0.ffn_down.weight"));
  EXPECT_EQ(QuantType::Q5_K, typeOf("blk.1.ffn_down.weight"));
  EXPECT_EQ(QuantType::Q5_K, typeOf("blk.2.ffn_down.weight"));
  EXPECT_EQ(QuantType::BF16, typeOf("token_embd.weight"));
  EXPECT_EQ(QuantType::F32, typeOf("blk.1.ffn_up.weight"));
  std::string plan;
  EXPECT_TRUE(loader.reader.getMetaStr("zym.convert.plan", plan));
  EXPECT_EQ("blk.[12].ffn_down.weight q5_k\nblk.?.ffn_down.weight q4_k\n*embd* bf16", plan);
}

TEST_F(StoragePlan, LinesThatChooseNothingAreRemarked) {
  const ConvertResult result = convert(
      "* q8_0\n"
      "*.ffn_up.weight q5_k\n"     // all taken already
      "*.attn_norm.weight q5_k\n"  // vectors
      "*.no_such q5_k\n");
  std::vector<std::string> expected;
  for (const char* rule : {"*.ffn_up.weight q5_k", "*.attn_norm.weight q5_k", "*.no_such q5_k"}) {
    expected.push_back("no matrix is stored by the plan's \"" + std::string(rule) +
                       "\": nothing matches it, or lines before it do");
  }
  const std::vector<std::string>& remarks = result.summary.remarks;
  ASSERT_LE(3U, remarks.size());
  EXPECT_EQ(expected, std::vector<std::string>(remarks.begin(), remarks.begin() + 3));
}

TEST_F(StoragePlan, ADryRunWritesNothingAndSaysTheSame) {
  const std::string plan = "*.ffn_down.weight q5_k\n";
  const ConvertResult dry = convert(plan);
  const std::string target = folder.file("model.zym");
  EXPECT_FALSE(std::filesystem::exists(target));
  const ConvertResult real = convert(plan, target);
  ASSERT_EQ(real.summary.groups.size(), dry.summary.groups.size());
  for (size_t i = 0; i < real.summary.groups.size(); ++i) {
    EXPECT_EQ(real.summary.groups[i].storedType, dry.summary.groups[i].storedType);
    EXPECT_EQ(real.summary.groups[i].storedBytes, dry.summary.groups[i].storedBytes);
  }
  EXPECT_LE(std::filesystem::file_size(target), dry.summary.fileBytes);
}

}  // namespace
