// zym check answers for the program's own engine: whatever is wrong with a file that states its
// shape, both give the same verdict, and the check names what the engine names.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "container/zym_loader.h"
#include "engine/model.h"
#include "host/inspect/container_check.h"
#include "tests/support/family_shapes.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using kel::test::Bytes;
using kel::test::RandomModelSpec;
using kel::test::TensorPlan;

const char* const kKeys[] = {
    "qwen35.block_count",
    "qwen35.context_length",
    "qwen35.embedding_length",
    "qwen35.feed_forward_length",
    "qwen35.attention.head_count",
    "qwen35.attention.head_count_kv",
    "qwen35.attention.key_length",
    "qwen35.attention.value_length",
    "qwen35.rope.dimension_count",
    "qwen35.ssm.conv_kernel",
    "qwen35.ssm.state_size",
    "qwen35.ssm.group_count",
    "qwen35.ssm.time_step_rank",
    "qwen35.ssm.inner_size",
    "qwen35.full_attention_interval",
    "qwen35.attention.layer_norm_rms_epsilon",
    "qwen35.rope.freq_base",
};

RandomModelSpec smallSpec() {
  RandomModelSpec spec{
      .hidden = 8, .ffn = 16, .vocab = 40, .shape = kel::test::oddShape(), .statesShape = true};
  spec.shape.layers = 4;
  spec.shape.fullLayers = kel::LayerSet::every(2, 4);
  return spec;
}

class EngineAgreementTest : public testing::Test {
 protected:
  void write(const RandomModelSpec& spec) const {
    ASSERT_EQ("", kel::test::writeRandomModel(path, spec).message);
  }

  std::string engineFault() const {
    std::shared_ptr<const engine::Model> model;
    return engine::Model::open(path, model).message;
  }

  std::vector<std::string> checkFaults() const {
    kel::ZYMLoader loader;
    const kel::Status status = loader.open(path.c_str());
    if (!status.ok()) {
      return {status.message};
    }
    std::vector<std::string> texts;
    for (const Fault& fault : checkContainer(loader, {}, nullptr).faults) {
      texts.push_back(fault.where == "metadata" ? fault.what : fault.where + ": " + fault.what);
    }
    return texts;
  }

  // Whether the file was refused.
  bool expectAgreement(const std::string& what) const {
    const std::string engine = engineFault();
    const std::vector<std::string> check = checkFaults();
    EXPECT_EQ(engine.empty(), check.empty())
        << what << "\n  engine: " << engine << "\n  check: " << (check.empty() ? "" : check[0]);
    if (!engine.empty()) {
      EXPECT_NE(std::find(check.begin(), check.end(), engine), check.end())
          << what << "\n  engine: " << engine << "\n  check: " << (check.empty() ? "" : check[0]);
    }
    return !engine.empty();
  }

  kel::test::TempDir folder;
  std::string path = folder.file("model.zym");
};

// Where the type of an entry of the metadata lies, in front of its value.
size_t typeAt(const Bytes& file, const std::string& key) {
  std::string entry(sizeof(uint16_t), '\0');
  const auto length = static_cast<uint16_t>(key.size());
  std::memcpy(entry.data(), &length, sizeof length);
  entry += key;
  const auto at = std::search(file.begin(), file.end(), entry.begin(), entry.end());
  if (at == file.end()) {
    throw std::out_of_range(key);
  }
  return static_cast<size_t>(at - file.begin()) + entry.size();
}

TEST_F(EngineAgreementTest, OnEveryNumberOfTheShape) {
  write(smallSpec());
  EXPECT_FALSE(expectAgreement("as written"));
  const Bytes whole = kel::test::readFile(path);
  for (const std::string key : kKeys) {
    const size_t at = typeAt(whole, key);
    uint32_t stated = 0;
    std::memcpy(&stated, &whole[at + 1], sizeof stated);
    size_t refused = 0;
    for (const uint32_t value :
         {0U, 1U, stated - 1, stated + 1, 2 * stated, stated / 2, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
      Bytes changed = whole;
      std::memcpy(&changed[at + 1], &value, sizeof value);
      kel::test::writeFile(path, changed);
      refused += expectAgreement(key + " is " + std::to_string(value)) ? 1 : 0;
    }
    EXPECT_GT(refused, 0U) << key;
    for (const size_t byte : {at, at - 1}) {  // another type, another key
      Bytes changed = whole;
      changed[byte] ^= 1;
      kel::test::writeFile(path, changed);
      expectAgreement(key + " is not there");
    }
  }
}

TEST_F(EngineAgreementTest, OnEveryTensor) {
  for (const TensorPlan& tensor : kel::test::planTensors(smallSpec())) {
    if (tensor.name.starts_with("blk.") && tensor.name >= "blk.2") {
      continue;  // one layer of each kind
    }
    RandomModelSpec spec = smallSpec();
    spec.edit = [&](std::vector<TensorPlan>& plan) {
      std::erase_if(plan, [&](const TensorPlan& entry) { return entry.name == tensor.name; });
    };
    write(spec);
    expectAgreement(tensor.name + " removed");
    // Rows of the embedding are no number of the shape: with one less it is a smaller model.
    const size_t damaged = tensor.name == "token_embd.weight" ? 1 : tensor.dims.size();
    for (size_t d = 0; d < damaged; ++d) {
      spec.edit = [&](std::vector<TensorPlan>& plan) { --planned(plan, tensor.name).dims[d]; };
      write(spec);
      EXPECT_TRUE(expectAgreement(tensor.name + " is smaller"));
    }
  }
}

TEST_F(EngineAgreementTest, OnAnOutputHeadOfItsOwn) {
  RandomModelSpec spec = smallSpec();
  spec.shape.ownOutput = true;
  write(spec);
  EXPECT_FALSE(expectAgreement("with one"));
  spec.edit = [](std::vector<TensorPlan>& plan) { --planned(plan, "output.weight").dims[1]; };
  write(spec);
  EXPECT_TRUE(expectAgreement("that is short of a row"));
}

// The engine names the first, the check all of them.
TEST_F(EngineAgreementTest, CheckNamesEveryContradiction) {
  RandomModelSpec spec = smallSpec();
  spec.edit = [](std::vector<TensorPlan>& plan) {
    plan.push_back({.name = "blk.4.attn_norm.weight", .dims = {8}, .low = 1, .high = 1});
  };
  write(spec);
  Bytes file = kel::test::readFile(path);
  for (const char* key : {"qwen35.embedding_length", "qwen35.feed_forward_length"}) {
    ++file[typeAt(file, key) + 1];
  }
  ++file[typeAt(file, "qwen35.full_attention_interval") + 1];
  kel::test::writeFile(path, file);
  expectAgreement("three numbers");
  std::vector<std::string> expected = {
      "qwen35.embedding_length is 9, but token_embd.weight has rows of 8"};
  for (const char* layer : {"0", "1", "2", "3"}) {
    expected.push_back("qwen35.feed_forward_length is 17, but blk." + std::string(layer) +
                       ".ffn_gate.weight has a row count of 16");
    if (std::string("123").find(layer) != std::string::npos) {
      expected.push_back("layer " + std::string(layer) + " is of " +
                         (*layer == '2' ? "linear" : "full") +
                         " attention by its tensors, but not by the metadata");
    }
  }
  expected.push_back("qwen35.block_count is 4, but there is a blk.4");
  EXPECT_EQ(expected, checkFaults());
}

TEST_F(EngineAgreementTest, OnTheArchitecture) {
  RandomModelSpec spec = smallSpec();
  spec.architecture = "qwen35moe";
  write(spec);
  EXPECT_EQ("its metadata name \"qwen35moe\"; models of \"qwen35\" can be run", engineFault());
  EXPECT_EQ(std::vector<std::string>{"general.architecture is \"qwen35moe\", needs \"qwen35\""},
            checkFaults());
}

}  // namespace
}  // namespace zym
