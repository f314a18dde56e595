#include "host/serve/slice_pace.h"

#include <gtest/gtest.h>

namespace zym {
namespace {

TEST(SlicePace, ReadsWholeBatchesWhileNobodyWaits) {
  SlicePace pace;
  EXPECT_EQ(SlicePace::kLongest, pace.tokens(false));
  pace.saw(100, 100);
  EXPECT_EQ(SlicePace::kLongest, pace.tokens(false));
}

TEST(SlicePace, ReadsAQuarterOfASecondWhileOthersWrite) {
  SlicePace pace;
  EXPECT_EQ(SlicePace::kLongest, pace.tokens(true)) << "nothing is known yet";
  pace.saw(100, 0.5);
  EXPECT_EQ(50U, pace.tokens(true));
  pace.saw(100, 0.01);
  EXPECT_EQ(SlicePace::kLongest, pace.tokens(true));
  pace.saw(100, 100);
  EXPECT_EQ(SlicePace::kShortest, pace.tokens(true));
}

TEST(SlicePace, LearnsNothingFromAFewTokens) {
  SlicePace pace;
  pace.saw(100, 0.5);
  pace.saw(3, 1);
  EXPECT_EQ(50U, pace.tokens(true));
}

}  // namespace
}  // namespace zym
