// Same calls, same bits: whatever the thread count, the instruction set, or what runs beside.

#include <gtest/gtest.h>
#include <omp.h>

#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "tests/support/float_bits.h"
#include "tests/support/opened_model.h"

namespace {

using kel::QuantType;
using kel::test::Bits;
using kel::test::bitsOf;
using kel::test::Handle;
using kel::test::ModelFile;

// Every type of weight in one model.
const ModelFile& mixedModel() {
  static const ModelFile file({.hidden = 256,
                               .ffn = 256,
                               .vocab = 301,
                               .types = {QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K,
                                         QuantType::BF16, QuantType::F32},
                               .biases = true});
  return file;
}

// Bits of the logits after the given tokens.
Bits logitBits(const std::string& path, const std::vector<size_t>& tokens) {
  Handle handle(path);
  std::vector<float> logits;
  for (const size_t token : tokens) {
    logits = handle.logits(token);
  }
  return bitsOf(logits);
}

class ModelDeterminism : public ::testing::Test {
 protected:
  ~ModelDeterminism() override { omp_set_num_threads(threads); }

  const int threads = omp_get_max_threads();
  const std::vector<size_t> tokens = {3, 250, 17};
};

TEST_F(ModelDeterminism, LogitsDoNotDependOnTheThreadCount) {
  omp_set_num_threads(1);
  const Bits expected = logitBits(mixedModel().path, tokens);
  for (const int count : {2, 3, 7}) {
    omp_set_num_threads(count);
    EXPECT_EQ(expected, logitBits(mixedModel().path, tokens)) << count;
  }
}

TEST_F(ModelDeterminism, TwoHandlesOnTwoHostThreadsDoNotMeet) {
  const ModelFile file;
  const std::vector<size_t> first = {1, 2, 3, 4, 5, 6};
  const std::vector<size_t> second = {9, 8, 7, 9, 8, 7};
  const Bits expectedFirst = logitBits(file.path, first);
  const Bits expectedSecond = logitBits(mixedModel().path, second);
  Bits gotFirst;
  Bits gotSecond;
  std::thread one([&] { gotFirst = logitBits(file.path, first); });
  std::thread two([&] { gotSecond = logitBits(mixedModel().path, second); });
  one.join();
  two.join();
  EXPECT_EQ(expectedFirst, gotFirst);
  EXPECT_EQ(expectedSecond, gotSecond);
}

}  // namespace
