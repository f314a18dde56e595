// Counts what forward passes allocate. Not in sanitizer builds, which bring an operator new of
// their own.
#include <gtest/gtest.h>
#include <omp.h>

#include <vector>

#include "qwen35/context.h"
#include "qwen35/forward.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/opened_model.h"

namespace {

using kel::QuantType;
using kel::test::Handle;
using kel::test::ModelFile;
using kel::test::nAllocations;
using qwen35::Arithmetic;

constexpr size_t kTokens = 12;  // more than attention takes at a time

class ContextAllocations : public ::testing::Test {
 protected:
  ContextAllocations() { omp_set_num_threads(3); }
  ~ContextAllocations() override { omp_set_num_threads(threads); }

 private:
  const int threads = omp_get_max_threads();
};

TEST_F(ContextAllocations, PassesAllocateNothing) {
  const ModelFile file({.hidden = 256,
                        .ffn = 256,
                        .types = {QuantType::Q4_K, QuantType::Q8_0, QuantType::F32},
                        .layerKinds = "LFFFFFFF"});
  Handle handle(file.path);
  qwen35::Model& model = handle.model;
  const std::vector<float> embeddings(kTokens * model.nEmbd, 0.5f);
  std::vector<float> hidden(kTokens * model.nEmbd);
  std::vector<float> logits(kTokens * model.nVocab);
  size_t before = nAllocations;
  qwen35::Context context(model, {.maxTokens = kTokens});
  EXPECT_LT(before, nAllocations) << "the counter counts";

  before = nAllocations;
  size_t pos = 0;
  for (const Arithmetic arithmetic : {Arithmetic::SingleToken, Arithmetic::Batch}) {
    for (const size_t count : {size_t{1}, size_t{2}, kTokens}) {
      forward(context, model,
              {.embeddings = embeddings.data(),
               .count = count,
               .pos = pos,
               .arithmetic = arithmetic,
               .hidden = hidden.data(),
               .logits = logits.data(),
               .allLogits = true});
      EXPECT_EQ(before, nAllocations) << count;
      pos += count;
    }
  }
}

TEST_F(ContextAllocations, PassesOverSeveralConversationsAllocateNothing) {
  const ModelFile file({.layerKinds = "LFFFFFFF"});
  Handle one(file.path);
  Handle two(file.path);
  const std::vector<float> embeddings(kTokens * one.model.nEmbd, 0.5f);
  std::vector<float> logits(kTokens * one.model.nVocab);
  qwen35::Context context(one.model, {.maxTokens = kTokens});
  const qwen35::Sequence sequences[] = {{.model = &one.model},
                                        {.model = &two.model, .first = 1, .count = kTokens - 1}};
  const size_t before = nAllocations;
  for (size_t round = 0; round < 2; ++round) {
    forwardShared(
        context,
        {.sequences = sequences, .embeddings = embeddings.data(), .logits = logits.data()});
  }
  EXPECT_EQ(before, nAllocations);
}

}  // namespace
