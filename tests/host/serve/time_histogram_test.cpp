#include "host/serve/time_histogram.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zym {
namespace {

size_t placeOf(double bound) {
  const auto* const found =
      std::find(TimeHistogram::kBounds.begin(), TimeHistogram::kBounds.end(), bound);
  return static_cast<size_t>(found - TimeHistogram::kBounds.begin());
}

TEST(TimeHistogram, CountsTimesUpToEachBound) {
  TimeHistogram times;
  for (const double seconds : {0.0, 0.001, 0.0011, 0.25, 299.0, 4000.0}) {
    times.add(seconds);
  }
  EXPECT_EQ(2U, times.countUpTo(placeOf(0.001))) << "a bound is itself within it";
  EXPECT_EQ(3U, times.countUpTo(placeOf(0.0025)));
  EXPECT_EQ(3U, times.countUpTo(placeOf(0.1)));
  EXPECT_EQ(4U, times.countUpTo(placeOf(0.25)));
  EXPECT_EQ(4U, times.countUpTo(placeOf(120.0)));
  EXPECT_EQ(5U, times.countUpTo(placeOf(300.0)));
  EXPECT_EQ(6U, times.count());
  EXPECT_DOUBLE_EQ(4299.2521, times.seconds());
}

TEST(TimeHistogram, HasRisingBoundsFromMillisecondsToMinutes) {
  EXPECT_TRUE(std::is_sorted(TimeHistogram::kBounds.begin(), TimeHistogram::kBounds.end()));
  EXPECT_LE(TimeHistogram::kBounds.front(), 0.001);
  EXPECT_GE(TimeHistogram::kBounds.back(), 300);
}

}  // namespace
}  // namespace zym
