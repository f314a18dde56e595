// What passes work with: the room they take, and that none of it reaches their results.
#include "qwen35/context.h"

#include <gtest/gtest.h>

#include <vector>

#include "qwen35/forward.h"
#include "tests/support/opened_model.h"
#include "tests/support/resident_memory.h"

namespace {

using kel::QuantType;
using kel::test::Handle;
using kel::test::ModelFile;
using kel::test::residentKilobytes;
using qwen35::Arithmetic;
using qwen35::Context;

using Tokens = std::vector<size_t>;

Tokens prompt(size_t n) {
  Tokens tokens(n);
  for (size_t i = 0; i < n; ++i) {
    tokens[i] = (7 * i + 3) % 300;
  }
  return tokens;
}

class PassContext : public testing::Test {
 protected:
  // Weights that are multiplied by each kind of prepared input, and both kinds of layers.
  static const ModelFile& model() {
    static const ModelFile file({.hidden = 256,
                                 .ffn = 256,
                                 .types = {QuantType::Q4_K, QuantType::Q8_0},
                                 .layerKinds = "LFFFFFFF",
                                 .blocks = 8});
    return file;
  }

  // Hidden states and logits of all tokens, and of one more behind them in the other arithmetic.
  static std::vector<float> resultsIn(Context& context, Handle& handle, const Tokens& tokens,
                                      Arithmetic arithmetic) {
    std::vector<float> results;
    const auto append = [&](const Tokens& fed, Arithmetic takes) {
      std::vector<float> logits;
      for (const std::vector<float>& values :
           {handle.passIn(context, fed, takes, &logits), logits}) {
        results.insert(results.end(), values.begin(), values.end());
      }
    };
    append(tokens, arithmetic);
    append({5}, arithmetic == Arithmetic::Batch ? Arithmetic::SingleToken : Arithmetic::Batch);
    return results;
  }
};

TEST_F(PassContext, RoomForMoreTokensChangesNoResult) {
  for (const Arithmetic arithmetic : {Arithmetic::Batch, Arithmetic::SingleToken}) {
    for (const size_t count : {1, 9}) {
      Handle handle(model());
      Context exact(handle.model, {.maxTokens = count});
      const std::vector<float> expected = resultsIn(exact, handle, prompt(count), arithmetic);
      for (const size_t room : {count + 1, size_t{33}, qwen35::kBatchTokens}) {
        handle.reset();
        Context roomy(handle.model, {.maxTokens = room});
        EXPECT_EQ(room, roomy.maxTokens());
        EXPECT_EQ(expected, resultsIn(roomy, handle, prompt(count), arithmetic))
            << count << " of " << room;
      }
    }
  }
}

// Passes of all lengths leave their values in the same room.
TEST_F(PassContext, NothingOfAnEarlierPassReachesALaterOne) {
  constexpr size_t kRoom = 20;
  Handle used(model());
  Context context(used.model, {.maxTokens = kRoom});
  for (const size_t count : {kRoom, size_t{1}, size_t{6}, kRoom, size_t{3}, size_t{11}}) {
    for (const Arithmetic arithmetic : {Arithmetic::Batch, Arithmetic::SingleToken}) {
      Handle fresh(model());
      Context unused(fresh.model, {.maxTokens = kRoom});
      used.reset();
      EXPECT_EQ(resultsIn(unused, fresh, prompt(count), arithmetic),
                resultsIn(context, used, prompt(count), arithmetic))
          << count;
    }
  }
}

// The weights and the state of the model are in use before anything is measured. Linear attention
// alone: its state does not grow.
TEST_F(PassContext, RoomForABatchCostsNothingUntilOneComes) {
  constexpr long kLittleKb = 2048;
  const ModelFile file({.layerKinds = "L"});
  Handle handle(file.path, 8192);
  handle.pass(prompt(1), Arithmetic::SingleToken);
  const long before = residentKilobytes();
  Context context(handle.model, {.maxTokens = qwen35::kBatchTokens});
  EXPECT_LT(residentKilobytes() - before, kel::test::allowedGrowth(kLittleKb)) << "made";
  handle.passIn(context, prompt(1), Arithmetic::SingleToken);
  handle.passIn(context, prompt(1), Arithmetic::Batch);
  EXPECT_LT(residentKilobytes() - before, kel::test::allowedGrowth(kLittleKb)) << "single tokens";
  handle.passIn(context, prompt(qwen35::kBatchTokens), Arithmetic::Batch);
  EXPECT_GT(residentKilobytes() - before, 4 * kLittleKb) << "a batch needs its room";
}

}  // namespace
