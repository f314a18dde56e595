#include "host/measure/bench_measure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zym {
namespace {

// Positions for framing, every word and every piece, and replies of a fixed number of pieces: the
// same in every turn, or in every other one.
class CountingBackend : public Backend {
 public:
  kel::Status turn(const std::string& text, const TurnCalls& calls, TurnOutcome&) override {
    const auto spaces = static_cast<uint64_t>(std::count(text.begin(), text.end(), ' '));
    positions += (positions == 0 ? beginning : 0) + framing + (spaces + 1) * positionsPerWord;
    ++turns;
    const bool shy = everyOther && turns % 2 == 0;
    for (int i = 0; i < (shy ? 1 : piecesPerTurn) && *calls.cancel == 0; ++i) {
      if (positions >= capacity) {
        return kel::Status::invalid("no room");
      }
      ++positions;
      calls.piece("x");
    }
    return kel::Status::success();
  }
  kel::Status complete(const std::string&, const TurnCalls&, TurnOutcome&) override { return {}; }
  bool hasRelativeTopP() const override { return true; }
  void reset() override {
    positions = 0;
    ++resets;
  }
  kel::Status configure(const Sampling&) override { return kel::Status::success(); }
  Sampling sampling() const override { return {}; }
  BackendStats stats() override { return {positions, 0, 0}; }
  BackendLimits limits() const override { return {96, capacity}; }

  uint64_t positions = 0;
  uint64_t capacity = 8192;
  uint64_t beginning = 0;  // of a conversation, before the framing of its first turn
  uint64_t framing = 0;    // of a turn
  uint64_t positionsPerWord = 1;
  int piecesPerTurn = 10;
  bool everyOther = false;
  int turns = 0;
  int resets = 0;
};

TEST(BenchMeasureTest, SpreadOfOddAndEvenCounts) {
  EXPECT_EQ(spreadOf({3, 1, 2}).median, 2);
  EXPECT_EQ(spreadOf({4, 1, 2, 3}).median, 2.5);
  EXPECT_EQ(spreadOf({4, 1, 2, 3}).min, 1);
  EXPECT_EQ(spreadOf({4, 1, 2, 3}).max, 4);
}

// A probe that answers one value after the other, the last one for ever.
class Probes {
 public:
  explicit Probes(std::vector<double> values) : answers(std::move(values)) {}
  double operator()() { return answers[std::min(asked++, answers.size() - 1)]; }

  size_t asked = 0;

 private:
  std::vector<double> answers;
};

TEST(BenchMeasureTest, ALimitAboveTheRateIsProbedOnce) {
  Probes probes({100, 300});
  EXPECT_EQ(limitAbove(90, std::ref(probes)), 100);
  EXPECT_EQ(probes.asked, 1U);
}

TEST(BenchMeasureTest, ALimitBelowTheRateIsProbedAgain) {
  Probes probes({100, 80, 150, 300});
  EXPECT_EQ(limitAbove(120, std::ref(probes)), 150);
  EXPECT_EQ(probes.asked, 3U);
}

TEST(BenchMeasureTest, ARateThatNoProbeReachesIsTheLimit) {
  Probes probes({100});
  EXPECT_EQ(limitAbove(120, std::ref(probes)), 120);
  EXPECT_LE(probes.asked, 5U);
}

TEST(BenchMeasureTest, AShareIsOfTheGreaterLimitBeforeAndBehindItsMeasurement) {
  Probes probes({100, 80, 40, 200});
  ShareOfLimit share(std::ref(probes));
  share.beforeMeasurement();
  share.afterMeasurement(50);
  share.beforeMeasurement();
  share.afterMeasurement(50);
  EXPECT_EQ(share.limits(), (std::vector<double>{100, 200}));
  EXPECT_EQ(share.shares(), (std::vector<double>{0.5, 0.25}));
  EXPECT_EQ(probes.asked, 4U);
}

TEST(BenchMeasureTest, NoLimitBesideAMeasurementIsBelowIt) {
  Probes probes({100, 80, 90, 160, 300});
  ShareOfLimit share(std::ref(probes));
  share.beforeMeasurement();
  share.afterMeasurement(120);
  EXPECT_EQ(share.limits(), std::vector<double>{160});
  EXPECT_EQ(share.shares(), std::vector<double>{0.75});
}

TEST(BenchMeasureTest, WhereNoLimitIsFoundThereIsNoShare) {
  Probes nothing({0});
  ShareOfLimit none(std::ref(nothing));
  none.beforeMeasurement();
  none.afterMeasurement(120);
  EXPECT_TRUE(none.limits().empty());
  EXPECT_TRUE(none.shares().empty());

  Probes late({0, 240});
  ShareOfLimit once(std::ref(late));
  once.beforeMeasurement();
  once.afterMeasurement(120);
  EXPECT_EQ(once.shares(), std::vector<double>{0.5});
}

// Positions that a prefill of so many fills.
uint64_t prefilled(CountingBackend& backend, uint64_t positions) {
  FillingCost cost;
  PrefillRun run;
  EXPECT_TRUE(learnFillingCost(backend, cost).ok());
  EXPECT_TRUE(measurePrefill(backend, cost, positions, run).ok());
  EXPECT_EQ(run.positions, backend.positions);
  return run.positions;
}

TEST(BenchMeasureTest, PrefillFillsExactlyTheWantedPositionsWithoutGenerating) {
  for (const uint64_t positions :
       {12, 20, 128, 255, 256, 257, 263, 266, 267, 268, 511, 1000, 7000}) {
    CountingBackend backend;
    backend.beginning = 1;
    backend.framing = 10;
    EXPECT_EQ(prefilled(backend, positions), positions);
  }
}

TEST(BenchMeasureTest, PrefillOfLessThanTheFramingIsTheFraming) {
  CountingBackend backend;
  backend.framing = 10;
  EXPECT_EQ(prefilled(backend, 5), 11U);
}

TEST(BenchMeasureTest, PrefillGoesBeyondTheWantedPositionsByLessThanAWord) {
  for (const uint64_t positions : {128, 256, 263, 600, 1000}) {
    CountingBackend backend;
    backend.framing = 10;
    backend.positionsPerWord = 4;
    const uint64_t filled = prefilled(backend, positions);
    EXPECT_GE(filled, positions);
    EXPECT_LT(filled, positions + 4);
  }
}

TEST(BenchMeasureTest, DecodeTakesAsManyTurnsAsItNeeds) {
  CountingBackend backend;
  std::vector<double> stepMs;
  ASSERT_TRUE(measureDecode(backend, FillingCost(), 0, 20, stepMs).ok());
  EXPECT_EQ(stepMs.size(), 20U);  // 9 steps a turn
}

TEST(BenchMeasureTest, SilentModelEndsTheMeasurement) {
  CountingBackend backend;
  backend.piecesPerTurn = 1;
  std::vector<double> stepMs;
  ASSERT_TRUE(measureDecode(backend, FillingCost(), 0, 20, stepMs).ok());
  EXPECT_TRUE(stepMs.empty());
}

TEST(BenchMeasureTest, SilentTurnsInBetweenDoNotEndTheMeasurement) {
  CountingBackend backend;
  backend.everyOther = true;
  std::vector<double> stepMs;
  ASSERT_TRUE(measureDecode(backend, FillingCost(), 0, 90, stepMs).ok());
  EXPECT_EQ(stepMs.size(), 90U);
}

TEST(BenchMeasureTest, FullContextIsFilledAgain) {
  CountingBackend backend;
  backend.capacity = 100;
  PrefillRun prefill;
  ASSERT_TRUE(measurePrefill(backend, FillingCost(), 50, prefill).ok());
  std::vector<double> stepMs;
  ASSERT_TRUE(measureDecode(backend, FillingCost(), 50, 90, stepMs).ok());
  EXPECT_EQ(stepMs.size(), 90U);  // four turns of 9 steps and one of 4 fill it, twice
  EXPECT_EQ(backend.resets, 3);
  EXPECT_EQ(backend.positions, 50U + 11U + 3U);
}

TEST(BenchMeasureTest, ContextThatIsFullBeforeAnyStepEndsTheMeasurement) {
  CountingBackend backend;
  backend.capacity = 50;
  PrefillRun prefill;
  ASSERT_TRUE(measurePrefill(backend, FillingCost(), 50, prefill).ok());
  std::vector<double> stepMs;
  ASSERT_TRUE(measureDecode(backend, FillingCost(), 50, 20, stepMs).ok());
  EXPECT_TRUE(stepMs.empty());
}

TEST(BenchMeasureTest, ProgressIsReported) {
  CountingBackend backend;
  std::vector<uint64_t> told;
  const auto listen = [&](uint64_t done) { told.push_back(done); };
  PrefillRun run;
  ASSERT_TRUE(measurePrefill(backend, FillingCost(), 600, run, listen).ok());
  EXPECT_EQ(told, (std::vector<uint64_t>{256, 512, 600}));
  told.clear();
  std::vector<double> stepMs;
  ASSERT_TRUE(measureDecode(backend, FillingCost(), 600, 3, stepMs, listen).ok());
  EXPECT_EQ(told, (std::vector<uint64_t>{0, 1, 2, 3}));
}

TEST(BenchMeasureTest, SizesThatDoNotFitAreRefused) {
  EXPECT_TRUE(checkBenchSize({96, 8192}, 128, 32).ok());
  EXPECT_TRUE(checkBenchSize({96, 8192}, 4000, 1000).ok());
  EXPECT_TRUE(checkBenchSize({96, 8192}, 7000, 32).ok());
  EXPECT_EQ(
      checkBenchSize({96, 8192}, 7000, 1200).message,
      "1200 steps at depth 7000 take about 8528 positions with the framing, the context holds "
      "8192; lower --steps, or --prompt and --at");
}

}  // namespace
}  // namespace zym
