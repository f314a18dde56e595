#include "host/bench_measure.h"

#include <gtest/gtest.h>

#include <string>

namespace zym {
namespace {

// A position for every word, and replies of a fixed number of pieces.
class CountingBackend : public Backend {
 public:
  kel::Status turn(const std::string& text, const PieceSink& sink, volatile int* cancel) override {
    for (const char c : text)
      positions += c == ' ' ? 1 : 0;
    for (int i = 0; i < piecesPerTurn && *cancel == 0; ++i)
      sink("x");
    return kel::Status::success();
  }
  kel::Status complete(const std::string&, std::string&) override { return {}; }
  void reset() override { positions = 0; }
  void configure(const Sampling&) override {}
  BackendStats stats() override { return {positions, 0, 0}; }
  BackendLimits limits() const override { return {96, 8192}; }

  uint64_t positions = 0;
  int piecesPerTurn = 10;
};

TEST(BenchMeasureTest, SpreadOfOddAndEvenCounts) {
  EXPECT_EQ(spreadOf({3, 1, 2}).median, 2);
  EXPECT_EQ(spreadOf({4, 1, 2, 3}).median, 2.5);
  EXPECT_EQ(spreadOf({4, 1, 2, 3}).min, 1);
  EXPECT_EQ(spreadOf({4, 1, 2, 3}).max, 4);
}

TEST(BenchMeasureTest, PrefillFillsTheWantedPositionsWithoutGenerating) {
  CountingBackend backend;
  PrefillRun run;
  ASSERT_TRUE(measurePrefill(backend, 1000, run).ok());
  EXPECT_EQ(run.positions, 1000U);
}

TEST(BenchMeasureTest, DecodeTakesAsManyTurnsAsItNeeds) {
  CountingBackend backend;
  std::vector<double> stepMs;
  ASSERT_TRUE(measureDecode(backend, 20, stepMs).ok());
  EXPECT_EQ(stepMs.size(), 20U);  // 9 steps a turn
}

TEST(BenchMeasureTest, SilentModelEndsTheMeasurement) {
  CountingBackend backend;
  backend.piecesPerTurn = 1;
  std::vector<double> stepMs;
  ASSERT_TRUE(measureDecode(backend, 20, stepMs).ok());
  EXPECT_TRUE(stepMs.empty());
}

}  // namespace
}  // namespace zym
