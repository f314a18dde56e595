// What tokens of running conversations allocate, and taking one over. Not in sanitizer builds,
// which bring an operator new of their own.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "engine/context.h"
#include "engine/passes.h"
#include "tests/engine/engine_models.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/family_shapes.h"

namespace engine {
namespace {

using kel::test::nAllocations;
using testing_support::feed;
using testing_support::OpenedModel;

TEST(ContextAllocations, ThereAreNoneOfTokensFedTogetherNorOfBranches) {
  const OpenedModel model(
      {.hidden = 8, .ffn = 16, .vocab = 40, .shape = kel::test::oddShape(), .statesShape = true});
  std::shared_ptr<Passes> passes;
  ASSERT_TRUE(Passes::create(model.model, {.positions = 64}, passes).ok());
  const auto one = model.context({.positions = 64, .passes = passes});
  const auto two = model.context({.positions = 64, .passes = passes});
  feed(*one, {1, 2, 3});
  feed(*two, {1, 2, 4, 5});
  two->remember();
  std::vector<Context*> both = {one.get(), two.get()};
  std::vector<kel::Status> statuses(2);
  const std::vector<int32_t> tokens = {6, 7};
  Context::feedTogether(both, tokens, statuses);  // makes room for the logits

  const std::vector<Token> wanted = one->tokens();
  const size_t before = nAllocations;
  EXPECT_TRUE(two->branchFrom(wanted, both));  // forgets a place of its own
  for (size_t turn = 0; turn < 50; ++turn) {
    Context::feedTogether(both, tokens, statuses);
  }
  EXPECT_EQ(before, nAllocations);
  EXPECT_EQ(54U, two->position());
  EXPECT_TRUE(statuses[0].ok() && statuses[1].ok());
}

}  // namespace
}  // namespace engine
