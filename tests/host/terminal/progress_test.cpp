#include "host/terminal/progress.h"

#include <gtest/gtest.h>

#include "host/terminal/units.h"

namespace zym {
namespace {

TEST(ProgressTest, ShowsShareRateAndTimeLeft) {
  EXPECT_EQ(progressText(500'000'000, 2'000'000'000, 2.0),
            "[#####               ]  25 %  500 MB of 2.00 GB  250 MB/s  6.0 s left");
}

TEST(ProgressTest, WithoutAnEstimateRateAndTimeAreMissing) {
  EXPECT_EQ(progressText(0, 1000, 1.0), "[                    ]   0 %  0 B of 1.00 kB");
  EXPECT_EQ(progressText(10, 1000, 0.0), "[                    ]   1 %  10 B of 1.00 kB");
}

TEST(ProgressTest, PositionsAreCounted) {
  EXPECT_EQ(progressText(320, 1280, 20.0, ProgressUnit::Positions),
            "[#####               ]  25 %  320 of 1280 positions  16.0/s  1 min 00 s left");
}

TEST(ProgressTest, ANarrowTerminalIsToldLess) {
  const auto text = [](size_t columns) {
    return progressText(320, 1280, 20.0, ProgressUnit::Positions, columns);
  };
  EXPECT_EQ(text(76), progressText(320, 1280, 20.0, ProgressUnit::Positions));
  EXPECT_EQ(text(75), " 25 %  320 of 1280 positions  1 min 00 s left");
  EXPECT_EQ(text(45), " 25 %  320 of 1280 positions  1 min 00 s left");
  EXPECT_EQ(text(44), " 25 %  1 min 00 s left");
  EXPECT_EQ(text(21), " 25 %");
}

TEST(ProgressTest, NothingToDoIsDone) {
  EXPECT_EQ(progressText(0, 0, 1.0), "[####################] 100 %  0 B of 0 B");
}

TEST(ProgressTest, MoreThanAllIsAll) {
  EXPECT_EQ(progressText(2000, 1000, 0.0), "[####################] 100 %  1.00 kB of 1.00 kB");
}

TEST(UnitsTest, BytesHaveThreeDigits) {
  EXPECT_EQ(bytesText(999), "999 B");
  EXPECT_EQ(bytesText(1000), "1.00 kB");
  EXPECT_EQ(bytesText(35'720'000), "35.7 MB");
  EXPECT_EQ(bytesText(999'600), "1.00 MB");
  EXPECT_EQ(bytesText(4'210'000'000), "4.21 GB");
}

TEST(UnitsTest, DurationsAreShort) {
  EXPECT_EQ(durationText(4.2), "4.2 s");
  EXPECT_EQ(durationText(59.97), "1 min 00 s");
  EXPECT_EQ(durationText(65), "1 min 05 s");
  EXPECT_EQ(durationText(7380), "2 h 03 min");
}

}  // namespace
}  // namespace zym
