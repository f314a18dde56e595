// Logits of the demonstration checkpoint against a reference computed in double precision. Exact
// replies are a weak test of the full-attention blocks; a slip in rotation, gate, norms or head
// order moves one of these logits by more than 1.
#include <gtest/gtest.h>

#include "session/decode_loop.h"
#include "tests/support/demo_model.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(DemoLogits, AgreeWithTheReference) {
  const kel::test::TempDir folder;
  const kel::test::DemoExpectations expected = kel::test::demoExpectations();
  ASSERT_EQ(6u, expected.logits.size());
  for (const auto& [name, type] :
       {std::pair{"bf16", kel::QuantType::BF16}, std::pair{"q8_0", kel::QuantType::Q8_0}}) {
    const std::string model = folder.file(std::string(name) + ".zym");
    kel::test::writeDemoModel(model, type);
    session::Qwen35Session session;
    char message[128] = "";
    ASSERT_TRUE(openSession(&session, model.c_str(), message, sizeof message)) << message;
    ASSERT_EQ("", session.unfitReason);
    for (const kel::test::DemoLogits& reference : expected.logits) {
      if (reference.matrices != name) {
        continue;
      }
      session.clearContext();
      std::vector<float> hidden(session.model.nEmbd);
      std::vector<float> logits(session.model.nVocab);
      ASSERT_TRUE(prefill(&session, reference.promptIds, hidden, logits));
      for (const auto& [id, logit] : reference.largest) {
        EXPECT_NEAR(logit, logits[static_cast<size_t>(id)], 1e-3) << name << " token " << id;
      }
    }
  }
}

}  // namespace
