// What opening a model makes of weights that are read as they are meant rather than as they are
// labelled. Messages and failures: tests/abi/lifecycle_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "session/decode_loop.h"
#include "session/session.h"
#include "tests/support/chat_model.h"
#include "tests/support/odd_weights.h"
#include "tests/support/temp_dir.h"

namespace {

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

}  // namespace
