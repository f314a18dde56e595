#include "host/serve/metrics.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/patterns.h"

namespace zym {
namespace {

using kel::test::PatternMatch;
using kel::test::wholeMatch;

TEST(Metrics, EverySampleBelongsToAFamilyThatIsToldOfOnce) {
  std::istringstream lines(metricsText({}, {}));
  const std::string help = "# HELP (zym_[a-z_]+) [A-Z][^\\\\]*";
  const std::string type = "# TYPE (zym_[a-z_]+) (counter|gauge|histogram)";
  const std::string sample = "(zym_[a-z_]+)(\\{[a-z]+=\"[a-z0-9+.I_]+\"\\})? [0-9.e+-]+";
  const std::string part = "(.*)_(bucket|sum|count)";
  std::set<std::string> told;
  std::set<std::string> series;
  std::string current;
  bool isHistogram = false;
  std::string line;
  while (std::getline(lines, line)) {
    if (const PatternMatch family = wholeMatch(line, help); !family.empty()) {
      current = family[1];
      EXPECT_TRUE(told.insert(current).second) << line;
    } else if (const PatternMatch kind = wholeMatch(line, type); !kind.empty()) {
      EXPECT_EQ(kind[1], current);
      EXPECT_EQ(kind[2] == "counter", current.ends_with("_total")) << line;
      isHistogram = kind[2] == "histogram";
    } else {
      const PatternMatch value = wholeMatch(line, sample);
      ASSERT_FALSE(value.empty()) << line;
      const PatternMatch ofHistogram = wholeMatch(value[1], part);
      EXPECT_EQ(isHistogram, !ofHistogram.empty()) << line;
      EXPECT_EQ(ofHistogram.empty() ? value[1] : ofHistogram[1], current) << line;
      EXPECT_TRUE(series.insert(value[1] + value[2]).second) << line;
    }
  }
  EXPECT_GE(told.size(), 15u);
}

TEST(Metrics, NumbersAreThoseOfTheScheduler) {
  SchedulerStatistics statistics;
  statistics.completed = 3;
  statistics.cancelled = 4;
  statistics.queueFull = 5;
  statistics.promptTokens = 100;
  statistics.cachedTokens = 60;
  statistics.decodeSeconds = 1.25;
  statistics.waiting = 7;
  statistics.positionsUsed = 12345678901;
  const std::string text = metricsText(statistics, {.connections = 8, .residentBytes = 9});
  for (const char* line :
       {"zym_requests_total{outcome=\"completed\"} 3\n",
        "zym_requests_total{outcome=\"cancelled\"} 4\n",
        "zym_requests_total{outcome=\"queue_full\"} 5\n", "zym_prompt_tokens_total 100\n",
        "zym_cached_prompt_tokens_total 60\n", "zym_decode_seconds_total 1.25\n",
        "zym_queue_requests 7\n", "zym_context_positions_used 12345678901\n", "zym_connections 8\n",
        "zym_resident_memory_bytes 9\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

TEST(Metrics, TimesAreHistograms) {
  SchedulerStatistics statistics;
  for (const double seconds : {0.002, 0.4, 0.4, 1000.0}) {
    statistics.queueTimes.add(seconds);
  }
  statistics.firstTokenTimes.add(2.5);
  const std::string text = metricsText(statistics, {});
  for (const char* line :
       {"# TYPE zym_queue_seconds histogram\n", "zym_queue_seconds_bucket{le=\"0.001\"} 0\n",
        "zym_queue_seconds_bucket{le=\"0.0025\"} 1\n", "zym_queue_seconds_bucket{le=\"0.5\"} 3\n",
        "zym_queue_seconds_bucket{le=\"300\"} 3\n", "zym_queue_seconds_bucket{le=\"+Inf\"} 4\n",
        "zym_queue_seconds_sum 1000.802\n", "zym_queue_seconds_count 4\n",
        "zym_first_token_seconds_bucket{le=\"1\"} 0\n",
        "zym_first_token_seconds_bucket{le=\"2.5\"} 1\n", "zym_first_token_seconds_sum 2.5\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

TEST(Metrics, RefusalsOfTheTransportAreOutcomesByTheirReason) {
  SchedulerStatistics statistics;
  statistics.shuttingDown = 20;
  ServerLoad load;
  for (size_t i = 0; i < kRefusalReasons; ++i) {
    load.refusals[i] = 100 + i;
  }
  const std::string text = metricsText(statistics, load);
  for (size_t i = 0; i < kRefusalReasons; ++i) {
    const auto reason = static_cast<RefusalReason>(i);
    const size_t others = reason == RefusalReason::ShuttingDown ? 20 : 0;
    const std::string line = "zym_requests_total{outcome=\"" + std::string(codeOf(reason)) +
                             "\"} " + std::to_string(100 + i + others) + "\n";
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

TEST(Metrics, AnswersAreToldByTheirStatus) {
  ServerLoad load;
  load.answers = {{200, 17}, {400, 3}};
  const std::string text = metricsText({}, load);
  for (const char* line :
       {"# TYPE zym_http_answers_total counter\nzym_http_answers_total{status=\"200\"} 17\n",
        "zym_http_answers_total{status=\"400\"} 3\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace zym
