#include "engine/model.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/engine/engine_models.h"
#include "tests/support/family_shapes.h"
#include "tests/support/zym2_patch.h"

namespace engine {
namespace {

using kel::test::RandomModelSpec;
using kel::test::TensorPlan;
using testing_support::OpenedModel;

RandomModelSpec oddModel() {
  return {.hidden = 8, .ffn = 16, .vocab = 40, .shape = kel::test::oddShape(), .statesShape = true};
}

std::string refusal(const RandomModelSpec& spec) {
  try {
    const OpenedModel opened(spec);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

std::string refusalOf(const std::function<void(std::vector<TensorPlan>&)>& edit) {
  RandomModelSpec spec = oddModel();
  spec.edit = edit;
  return refusal(spec);
}

TEST(EngineModel, ShapeAndSizesAreThoseThatTheFileStates) {
  const OpenedModel opened(oddModel());
  EXPECT_EQ(kel::test::oddShape(), opened.model->shape());
  EXPECT_EQ(8U, opened.model->sizes().hidden);
  EXPECT_EQ(16U, opened.model->sizes().feedForward);
  EXPECT_EQ(40U, opened.model->sizes().vocab);
  EXPECT_EQ(3, opened.model->tokenizer().tokenToId("<3>"));
  EXPECT_EQ(opened.path, opened.model->path());
}

TEST(EngineModel, WithoutMetadataTheShapeIsTheFixedOne) {
  const OpenedModel opened({.vocab = 30});
  EXPECT_EQ(kel::kFixedShape, opened.model->shape());
}

TEST(EngineModel, AnotherArchitectureIsRefusedByName) {
  RandomModelSpec spec = oddModel();
  spec.architecture = "qwen35moe";
  EXPECT_EQ("its metadata name \"qwen35moe\"; models of \"qwen35\" can be run", refusal(spec));
  spec.architecture = "";
  EXPECT_EQ("its metadata name no architecture; models of \"qwen35\" can be run", refusal(spec));
}

TEST(EngineModel, ATensorThatDoesNotFitTheShapeIsNamed) {
  EXPECT_EQ("blk.1.attn_q.weight: has 479 rows, needs 480",
            refusalOf([](auto& plan) { planned(plan, "blk.1.attn_q.weight").dims[1] = 479; }));
  EXPECT_EQ("blk.3.ssm_norm.weight: is missing", refusalOf([](auto& plan) {
              std::erase_if(plan,
                            [](const TensorPlan& t) { return t.name == "blk.3.ssm_norm.weight"; });
            }));
}

TEST(EngineModel, MetadataThatTheTensorsContradictAreNamed) {
  EXPECT_EQ("qwen35.block_count is 5, but there is a blk.5", refusalOf([](auto& plan) {
              plan.push_back({.name = "blk.5.attn_norm.weight", .dims = {8}, .low = 1, .high = 1});
            }));
}

TEST(EngineModel, AFileThatIsNotThereIsNamedByTheReader) {
  std::shared_ptr<const Model> model;
  const kel::Status status = Model::open("/no/such/model.zym", model);
  EXPECT_FALSE(status.ok());
  EXPECT_EQ(nullptr, model);
}

}  // namespace
}  // namespace engine
