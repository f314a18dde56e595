// The probes do the work that their rates are made of: a reader that skipped bytes, or chains that
// skipped steps, would make every share of the machine look small.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/measure/multiply_peak.h"
#include "host/measure/probe_team.h"
#include "host/measure/read_bandwidth.h"
#include "qwen35/simd/instruction_sets.h"

namespace zym {
namespace {

TEST(ProbesTest, EveryReaderReadsEveryWordOnce) {
  const std::unique_ptr<uint8_t, decltype(&std::free)> chunk(
      static_cast<uint8_t*>(std::aligned_alloc(64, kReadChunk)), &std::free);
  std::mt19937_64 random(7);
  uint64_t expected = 0;
  for (size_t at = 0; at < kReadChunk; at += sizeof(uint64_t)) {
    const uint64_t word = random();
    std::memcpy(chunk.get() + at, &word, sizeof(word));
    expected += word;
  }
  ASSERT_FALSE(chunkReaders().empty());
  for (const ChunkReader& reader : chunkReaders()) {
    EXPECT_EQ(reader.sum(chunk.get()), expected) << reader.name;
  }
}

TEST(ProbesTest, EveryLaneOfEveryChainTakesEveryStep) {
  for (const std::string_view kernels : qwen35::supportedInstructionSets()) {
    for (const MultiplyChains& chains : multiplyChains(kernels)) {
      EXPECT_EQ(chains.run(3), 1.75F * static_cast<float>(chains.nLanes)) << chains.name;
    }
  }
}

// Wider ones would make the share of the kernels look small.
TEST(ProbesTest, ChainsAreNoWiderThanTheKernels) {
  const auto names = [](std::string_view kernels) {
    std::vector<std::string> all;
    for (const MultiplyChains& chains : multiplyChains(kernels)) {
      all.emplace_back(chains.name);
    }
    return all;
  };
  using Names = std::vector<std::string>;
  EXPECT_EQ(names("scalar"), Names{"scalar"});
#if defined(__x86_64__)
  EXPECT_EQ(names("avx2"), Names{"avx2"});
  EXPECT_EQ(names("avxvnni"), Names{"avx2"});
  EXPECT_EQ(names("avx512"), (Names{"avx512", "avx2"}));
#elif defined(__aarch64__)
  EXPECT_EQ(names("neon"), Names{"neon"});
#endif
}

TEST(ProbesTest, EveryThreadOfATeamWorksOnceInEveryPass) {
  ProbeTeam team(3);
  ASSERT_EQ(team.size(), 3U);
  std::vector<std::atomic<int>> worked(3);
  for (int pass = 1; pass <= 100; ++pass) {
    EXPECT_GE(team.run([&](size_t thread) { ++worked[thread]; }), 0);
    for (const std::atomic<int>& times : worked) {
      ASSERT_EQ(times, pass);
    }
  }
}

// Each thread waits for the other one: they would wait for ever one after the other.
TEST(ProbesTest, ATeamWorksAtOnce) {
  ProbeTeam team(2);
  std::atomic<int> present{0};
  team.run([&](size_t) {
    ++present;
    while (present < 2) {
      std::this_thread::yield();
    }
  });
  EXPECT_EQ(present, 2);
}

TEST(ProbesTest, ATeamThatNeverWorksEnds) {
  const ProbeTeam team(2);
  EXPECT_EQ(team.size(), 2U);
}

TEST(ProbesTest, TheBufferIsFarLargerThanTheCachesButNoBurden) {
  constexpr uint64_t kGigabyte = uint64_t{1} << 30;
  EXPECT_EQ(bandwidthBufferBytes(kGigabyte / 32, 64 * kGigabyte), kGigabyte);
  EXPECT_EQ(bandwidthBufferBytes(kGigabyte / 2, 64 * kGigabyte), 4 * kGigabyte);
  EXPECT_EQ(bandwidthBufferBytes(kGigabyte / 2, 8 * kGigabyte), 2 * kGigabyte);
}

TEST(ProbesTest, ASmallBufferAndManyThreadsStillGiveARate) {
  EXPECT_GT(readBandwidth(1, 3), 0);
  EXPECT_EQ(readBandwidth(SIZE_MAX / 2, 1), 0) << "no machine has that much memory";
}

}  // namespace
}  // namespace zym
