#include "engine/token_counts.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace engine {
namespace {

using Counts = std::map<int32_t, uint32_t>;

Counts countsOf(const TokenCounts& counts) {
  Counts found;
  for (const TokenCounts::Entry& entry : counts.entries()) {
    EXPECT_TRUE(found.emplace(entry.id, entry.count).second) << entry.id;
  }
  return found;
}

TEST(TokenCounts, CountTheTokensOfAPart) {
  const std::vector<int32_t> history = {4, 7, 4, 9, 7, 7};
  TokenCounts counts;
  counts.moveTo(history, 0, 3);
  EXPECT_EQ((Counts{{4, 2}, {7, 1}}), countsOf(counts));
  counts.moveTo(history, 2, 6);
  EXPECT_EQ((Counts{{4, 1}, {9, 1}, {7, 2}}), countsOf(counts));
  counts.moveTo(history, 3, 3);
  EXPECT_EQ(Counts{}, countsOf(counts));
}

TEST(TokenCounts, AnyMoveGivesWhatCountingAfreshGives) {
  std::mt19937_64 random(3);
  std::vector<int32_t> history(40);
  for (int32_t& id : history) {
    id = static_cast<int32_t>(random() % 8);
  }
  TokenCounts counts;
  for (int i = 0; i < 500; ++i) {
    size_t from = random() % (history.size() + 1);
    size_t to = random() % (history.size() + 1);
    if (from > to) {
      std::swap(from, to);
    }
    Counts expected;
    for (size_t at = from; at < to; ++at) {
      ++expected[history[at]];
    }
    counts.moveTo(history, from, to);
    ASSERT_EQ(expected, countsOf(counts)) << from << " to " << to;
  }
}

TEST(TokenCounts, AfterAClearAnotherHistoryCounts) {
  TokenCounts counts;
  counts.moveTo(std::vector<int32_t>{1, 1, 2}, 0, 3);
  counts.clear();
  EXPECT_EQ(Counts{}, countsOf(counts));
  counts.moveTo(std::vector<int32_t>{5, 6, 7}, 1, 3);
  EXPECT_EQ((Counts{{6, 1}, {7, 1}}), countsOf(counts));
}

}  // namespace
}  // namespace engine
