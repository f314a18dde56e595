#include "host/measure/multiply_peak.h"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "host/measure/probe_team.h"

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace zym {
namespace {

constexpr int kPasses = 5;
// Of a pass, which takes some ten milliseconds: without vectors each multiply-add is a call.
constexpr size_t kVectorSteps = 4000000;
constexpr size_t kScalarSteps = kVectorSteps / 10;

// Chains: at least the latency of a multiply-add times those that begin in a cycle, and as many as
// the registers hold.
constexpr size_t kScalarChains = 10;

float scalarChains(size_t nSteps) {
  float chains[kScalarChains] = {};
  for (size_t i = 0; i < nSteps; ++i) {
    for (float& chain : chains) {
      chain = std::fma(chain, 0.5f, 1.0f);
    }
  }
  float total = 0;
  for (const float chain : chains) {
    total += chain;
  }
  return total;
}

#if defined(__x86_64__)
constexpr size_t kAvx2Chains = 12;
constexpr size_t kAvx512Chains = 24;

__attribute__((target("avx2,fma"))) float avx2Chains(size_t nSteps) {
  __m256 chains[kAvx2Chains];
  for (__m256& chain : chains) {
    chain = _mm256_setzero_ps();
  }
  const __m256 half = _mm256_set1_ps(0.5f);
  const __m256 one = _mm256_set1_ps(1.0f);
  for (size_t i = 0; i < nSteps; ++i) {
#pragma GCC unroll 12
    for (size_t c = 0; c < kAvx2Chains; ++c) {
      chains[c] = _mm256_fmadd_ps(chains[c], half, one);
    }
  }
  for (size_t c = 1; c < kAvx2Chains; ++c) {
    chains[0] = _mm256_add_ps(chains[0], chains[c]);
  }
  float lanes[8];
  _mm256_storeu_ps(lanes, chains[0]);
  float total = 0;
  for (const float lane : lanes) {
    total += lane;
  }
  return total;
}

__attribute__((target("avx512f"))) float avx512Chains(size_t nSteps) {
  __m512 chains[kAvx512Chains];
  for (__m512& chain : chains) {
    chain = _mm512_setzero_ps();
  }
  const __m512 half = _mm512_set1_ps(0.5f);
  const __m512 one = _mm512_set1_ps(1.0f);
  for (size_t i = 0; i < nSteps; ++i) {
#pragma GCC unroll 24
    for (size_t c = 0; c < kAvx512Chains; ++c) {
      chains[c] = _mm512_fmadd_ps(chains[c], half, one);
    }
  }
  for (size_t c = 1; c < kAvx512Chains; ++c) {
    chains[0] = _mm512_add_ps(chains[0], chains[c]);
  }
  float lanes[16];
  _mm512_storeu_ps(lanes, chains[0]);
  float total = 0;
  for (const float lane : lanes) {
    total += lane;
  }
  return total;
}
#elif defined(__aarch64__)
constexpr size_t kNeonChains = 24;

// A multiply-add of vectors adds to one of its operands and leaves the sum there. Of x - 2, which
// these chains hold, a step leaves the half: that is a sum with a product of the chain itself.
float neonChains(size_t nSteps) {
  float32x4_t chains[kNeonChains];
  for (float32x4_t& chain : chains) {
    chain = vdupq_n_f32(-2.0f);
  }
  const float32x4_t minusHalf = vdupq_n_f32(-0.5f);
  for (size_t i = 0; i < nSteps; ++i) {
#pragma GCC unroll 24
    for (float32x4_t& chain : chains) {
      chain = vfmaq_f32(chain, chain, minusHalf);
    }
  }
  for (size_t c = 1; c < kNeonChains; ++c) {
    chains[0] = vaddq_f32(chains[0], chains[c]);
  }
  return vaddvq_f32(chains[0]) + 2.0f * 4 * kNeonChains;
}
#endif

}  // namespace

std::vector<MultiplyChains> multiplyChains([[maybe_unused]] std::string_view kernels) {
#if defined(__x86_64__)
  const MultiplyChains avx2{"avx2", kAvx2Chains * 8, kVectorSteps, avx2Chains};
  if (kernels == "avx512") {
    return {{"avx512", kAvx512Chains * 16, kVectorSteps, avx512Chains}, avx2};
  }
  if (kernels == "avx2" || kernels == "avxvnni") {
    return {avx2};
  }
#elif defined(__aarch64__)
  if (kernels == "neon") {
    return {{"neon", kNeonChains * 4, kVectorSteps, neonChains}};
  }
#endif
  return {{"scalar", kScalarChains, kScalarSteps, scalarChains}};
}

double multiplyPeak(int nThreads, std::string_view kernels) {
  const auto threads = static_cast<size_t>(std::max(nThreads, 1));
  ProbeTeam team(threads);
  std::atomic<float> kept{0};  // so that the chains are not optimised away
  double best = 0;
  for (const MultiplyChains& kind : multiplyChains(kernels)) {
    for (int pass = 0; pass < kPasses; ++pass) {
      const double seconds = team.run([&](size_t) { kept = kind.run(kind.passSteps); });
      if (seconds > 0) {
        best =
            std::max(best, static_cast<double>(kind.passSteps * kind.nLanes * threads) / seconds);
      }
    }
  }
  return kept == 0 ? 0 : best;
}

}  // namespace zym
