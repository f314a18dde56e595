#include "host/measure/read_bandwidth.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

namespace zym {
namespace {

constexpr int kPasses = 5;

uint64_t sum(const uint64_t* words, size_t n) {
  // Four sums, so that the additions do not wait for one another.
  uint64_t sums[4] = {0, 0, 0, 0};
  for (size_t i = 0; i + 4 <= n; i += 4) {
    for (size_t lane = 0; lane < 4; ++lane) {
      sums[lane] += words[i + lane];
    }
  }
  return sums[0] + sums[1] + sums[2] + sums[3];
}

}  // namespace

double readBandwidth(size_t bufferBytes, int nThreads) {
  const auto threads = static_cast<size_t>(std::max(nThreads, 1));
  const size_t share = bufferBytes / sizeof(uint64_t) / threads;
  const std::vector<uint64_t> words(share * threads, 1);
  std::atomic<uint64_t> total{0};  // used, so that the reads are not optimised away
  double best = 0;
  for (int pass = 0; pass < kPasses; ++pass) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> team;
    for (size_t t = 0; t < threads; ++t) {
      team.emplace_back([&, t] { total += sum(words.data() + t * share, share); });
    }
    for (std::thread& member : team) {
      member.join();
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    if (seconds.count() > 0) {
      best = std::max(best, static_cast<double>(words.size() * sizeof(uint64_t)) / seconds.count());
    }
  }
  return total == 0 ? 0 : best;
}

}  // namespace zym
