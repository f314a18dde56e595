#include "host/measure/multiply_peak.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <thread>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace zym {
namespace {

constexpr int kPasses = 5;
constexpr size_t kSteps = 4000000;
constexpr size_t kChains = 10;  // enough to hide the latency of a multiply-add

using Chains = float (*)();  // kSteps steps of kChains chains; returns something to keep

float scalarChains() {
  float sum[kChains] = {};
  for (size_t i = 0; i < kSteps; ++i) {
    for (float& chain : sum) {
      chain = std::fma(chain, 0.5f, 1.0f);
    }
  }
  return sum[0] + sum[kChains - 1];
}

#if defined(__x86_64__)
__attribute__((target("avx2,fma"))) float avx2Chains() {
  __m256 sum[kChains];
  for (__m256& chain : sum) {
    chain = _mm256_setzero_ps();
  }
  const __m256 half = _mm256_set1_ps(0.5f);
  const __m256 one = _mm256_set1_ps(1.0f);
  for (size_t i = 0; i < kSteps; ++i) {
#pragma GCC unroll 10
    for (size_t c = 0; c < kChains; ++c) {
      sum[c] = _mm256_fmadd_ps(sum[c], half, one);
    }
  }
  __m256 total = sum[0];
  for (size_t c = 1; c < kChains; ++c) {
    total = _mm256_add_ps(total, sum[c]);
  }
  return _mm256_cvtss_f32(total);
}
#endif

struct Kind {
  Chains run;
  size_t lanes;
};

Kind widest() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
    return {avx2Chains, 8};
  }
#endif
  return {scalarChains, 1};
}

}  // namespace

double multiplyPeak(int nThreads) {
  const Kind kind = widest();
  const int threads = std::max(nThreads, 1);
  std::atomic<float> kept{0};  // so that the chains are not optimised away
  double best = 0;
  for (int pass = 0; pass < kPasses; ++pass) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> team;
    team.reserve(static_cast<size_t>(threads));
    for (int t = 0; t < threads; ++t) {
      team.emplace_back([&] { kept = kind.run(); });
    }
    for (std::thread& member : team) {
      member.join();
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    const auto done = static_cast<double>(kSteps * kChains * kind.lanes) * threads;
    if (seconds.count() > 0) {
      best = std::max(best, done / seconds.count());
    }
  }
  return kept == 0 ? 0 : best;
}

}  // namespace zym
