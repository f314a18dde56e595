#include "engine/guess_pace.h"

#include <gtest/gtest.h>

namespace engine {
namespace {

int worthOf(GuessPace& pace, int asked) {
  int worth = 0;
  for (int i = 0; i < asked; ++i) {
    worth += pace.isWorthIt() ? 1 : 0;
  }
  return worth;
}

TEST(GuessPace, TriesWhatItDoesNotKnow) {
  GuessPace pace;
  EXPECT_TRUE(pace.isWorthIt());
  pace.sawToken(1);
  EXPECT_TRUE(pace.isWorthIt());
}

TEST(GuessPace, GoesOnWhileTokensComeFaster) {
  GuessPace pace;
  pace.sawToken(1);
  pace.sawGuess(2, 4);
  EXPECT_EQ(100, worthOf(pace, 100));
}

TEST(GuessPace, RarelyTriesAgainWhereTheyDoNot) {
  GuessPace pace;
  pace.sawToken(1);
  pace.sawGuess(2, 1);
  EXPECT_EQ(3, worthOf(pace, 96));
  EXPECT_FALSE(pace.isWorthIt());
}

TEST(GuessPace, LearnsAnew) {
  GuessPace pace;
  pace.sawToken(1);
  pace.sawGuess(2, 1);
  for (int i = 0; i < 20; ++i) {
    pace.sawGuess(2, 4);
  }
  EXPECT_TRUE(pace.isWorthIt());
  EXPECT_TRUE(pace.isWorthIt());
}

}  // namespace
}  // namespace engine
