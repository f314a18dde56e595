// The bits of results, known beforehand: the same on every processor that the project is built for,
// with every instruction set of it. Where results are meant to differ from these, the message of
// the failed comparison shows the new values.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "container/checksum.h"
#include "qwen35/elementwise.h"
#include "session/decode_loop.h"
#include "session/sampler.h"
#include "tests/support/demo_model.h"
#include "tests/support/opened_model.h"

namespace {

using kel::QuantType;
using kel::test::Handle;
using qwen35::Arithmetic;
using Floats = std::vector<float>;

template <typename Value>
std::string sumOf(const std::vector<Value>& values) {
  kel::Checksum checksum;
  checksum.update(values.data(), values.size() * sizeof(Value));
  return checksum.hex().substr(0, 16);
}

// From -90 to 90 in steps that are no round numbers, and every power of two on the way.
Floats manyArguments() {
  Floats values;
  for (int i = -30000; i <= 30000; ++i) {
    values.push_back(static_cast<float>(i) * 0.003F);
  }
  for (int power = -126; power <= 6; ++power) {
    values.push_back(std::ldexp(1.0F, power));
    values.push_back(-values.back());
  }
  return values;
}

std::string sumOver(void (*function)(const float*, float*, size_t)) {
  const Floats arguments = manyArguments();
  Floats results(arguments.size());
  function(arguments.data(), results.data(), arguments.size());
  return sumOf(results);
}

TEST(KnownBits, OfTheFunctionsOfOneValue) {
  EXPECT_EQ("67ab2a2490cf8391", sumOver(qwen35::silu));
  EXPECT_EQ("1f4337c60bece909", sumOver(qwen35::sigmoid));
  EXPECT_EQ("88bd3030c1af1881", sumOver(qwen35::softplus));
}

// Of a model in which every type has matrices: rows that are long enough for super-blocks are those
// of the projections back to the hidden size.
TEST(KnownBits, OfLogits) {
  const kel::test::ModelFile file({.hidden = 32,
                                   .ffn = 256,
                                   .vocab = 301,
                                   .types = {QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K,
                                             QuantType::BF16, QuantType::F32},
                                   .biases = true});
  Handle handle(file.path);
  Floats single = handle.logits(3);
  for (const size_t token : {250, 17}) {
    const Floats next = handle.logits(token);
    single.insert(single.end(), next.begin(), next.end());
  }
  EXPECT_EQ("28a3f791f8a92633", sumOf(single)) << "token by token";

  std::vector<size_t> tokens;
  for (size_t i = 0; i < 6; ++i) {
    tokens.push_back(i * 37 % 301);
  }
  Floats batch;
  const Floats hidden = handle.pass(tokens, Arithmetic::Batch, &batch);
  EXPECT_EQ("d0da0b77c8c86406", sumOf(hidden)) << "final states of a batch";
  EXPECT_EQ("c01cd10532d787b1", sumOf(batch)) << "logits of a batch";
}

// Chosen by chance among the best: what the sampler makes of the logits counts as well.
TEST(KnownBits, OfASampledReply) {
  const kel::test::TempDir folder;
  const std::string model = folder.file("demo.zym");
  kel::test::writeDemoModel(model, QuantType::BF16);
  session::Qwen35Session session;
  char message[128] = "";
  ASSERT_TRUE(openSession(&session, model.c_str(), message, sizeof message)) << message;
  Floats hidden(session.model.nEmbd);
  Floats logits(session.model.nVocab);
  ASSERT_TRUE(
      prefill(&session, kel::test::demoExpectations().logits.at(0).promptIds, hidden, logits));
  std::vector<int32_t> tokens;
  while (tokens.size() < 8) {
    tokens.push_back(
        session::sampleNext(logits.data(), logits.size(), 2.0F, 40, 1.0F, session.rng));
    feedToken(&session, tokens.back(), hidden, logits);
  }
  EXPECT_EQ((std::vector<int32_t>{41, 150, 215, 353, 346, 201, 188, 428}), tokens);
  EXPECT_EQ("4ee679bf7653f73a", sumOf(logits)) << "logits after the last token";
}

}  // namespace
