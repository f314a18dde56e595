#include "host/serve/queue_pace.h"

#include <gtest/gtest.h>

namespace zym {
namespace {

using namespace std::chrono_literals;

TEST(QueuePace, KnowsNothingBeforeARequestHasEnded) {
  EXPECT_EQ(1s, QueuePace(4).untilRoom());
}

TEST(QueuePace, TellsWhenTheNextOfThoseAtWorkEnds) {
  QueuePace alone(1);
  QueuePace four(4);
  for (int i = 0; i < 5; ++i) {
    alone.saw(20.5);
    four.saw(20.5);
  }
  EXPECT_EQ(21s, alone.untilRoom());
  EXPECT_EQ(6s, four.untilRoom()) << "one after another";
}

TEST(QueuePace, TakesTheMeanOfTheLastRequests) {
  QueuePace pace(1);
  pace.saw(2);
  pace.saw(10);
  EXPECT_EQ(6s, pace.untilRoom());
  for (int i = 0; i < 200; ++i) {
    pace.saw(30);
  }
  EXPECT_EQ(30s, pace.untilRoom()) << "what came first is forgotten";
}

TEST(QueuePace, AsksNobodyToWaitLongerThanAMinuteOrNotAtAll) {
  QueuePace pace(2);
  pace.saw(1e9);
  EXPECT_EQ(QueuePace::kLongest, pace.untilRoom());
  QueuePace quick(2);
  quick.saw(0);
  EXPECT_EQ(1s, quick.untilRoom());
}

}  // namespace
}  // namespace zym
