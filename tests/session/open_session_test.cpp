// What opening a model makes of weights that are read as they are meant rather than as they are
// labelled, and of models that look like the one shape and are of another. Messages and failures:
// tests/abi/lifecycle_test.cpp, tests/abi/other_shapes_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "session/decode_loop.h"
#include "session/session.h"
#include "tests/support/chat_model.h"
#include "tests/support/family_shapes.h"
#include "tests/support/odd_weights.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::RandomModelSpec;
using kel::test::TensorPlan;
using session::Qwen35Session;

// Logits after a short prompt.
std::vector<float> logitsOf(Qwen35Session& session, const std::string& path) {
  EXPECT_TRUE(openSession(&session, path.c_str(), nullptr, 0));
  EXPECT_EQ("", session.unfitReason);
  std::vector<float> hidden(session.model.nEmbd);
  std::vector<float> logits(session.model.nVocab);
  EXPECT_TRUE(prefill(&session, {1, 2, 3}, hidden, logits));
  return logits;
}

TEST(OpenSession, VectorsRunAtOddAddressesAndUnderOtherLabels) {
  const kel::test::TempDir folder;
  const std::string path = folder.file("m.zym");
  kel::test::writeRandomChatModel(path, kel::QuantType::F32, 8);
  Qwen35Session plain;
  const std::vector<float> expected = logitsOf(plain, path);

  kel::test::shiftWeights(path);
  kel::test::relabelVectors(path);
  Qwen35Session odd;
  EXPECT_EQ(expected, logitsOf(odd, path));
  const void* norm = odd.model.layers[0].attnNorm->data;
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(norm) % alignof(float));
}

class OpenSessionOfOtherShapes : public testing::Test {
 protected:
  // The tensors of two models are drawn alike where they have the same name and shape.
  std::vector<float> logits(const RandomModelSpec& spec) const {
    const std::string path = folder.file("m.zym");
    EXPECT_EQ("", kel::test::writeRandomModel(path, spec).message);
    Qwen35Session session;
    return logitsOf(session, path);
  }

  kel::test::TempDir folder;
  RandomModelSpec own{.vocab = 60, .types = {kel::QuantType::BF16}};
  std::vector<float> expected = logits(own);
};

TEST_F(OpenSessionOfOtherShapes, OfMoreLayersTheFirst32Run) {
  RandomModelSpec longer = own;
  longer.shape = kel::test::familyShape(64, 16, 4, 32, false);
  longer.statesShape = true;
  EXPECT_EQ(expected, logits(longer));
}

TEST_F(OpenSessionOfOtherShapes, AnOutputHeadOfTheModelsOwnIsOverlooked) {
  RandomModelSpec untied = own;
  untied.shape.ownOutput = true;
  EXPECT_EQ(expected, logits(untied));
  untied.statesShape = true;
  EXPECT_EQ(expected, logits(untied));
  untied.edit = [](std::vector<TensorPlan>& plan) {
    TensorPlan& head = planned(plan, "output.weight");
    head.type = kel::QuantType::F16;
    head.dims = {3};
    head.data.assign(6, 0xFF);
  };
  EXPECT_EQ(expected, logits(untied));
}

TEST_F(OpenSessionOfOtherShapes, MetadataThatLieAreNotRead) {
  RandomModelSpec lying = own;
  lying.shape = kel::test::oddShape();
  lying.hidden = 12;
  lying.statesShape = true;
  lying.edit = [&](std::vector<TensorPlan>& plan) { plan = kel::test::planTensors(own); };
  lying.tokenizer.tokens.assign(own.vocab, "t");
  EXPECT_EQ(expected, logits(lying));
}

}  // namespace
