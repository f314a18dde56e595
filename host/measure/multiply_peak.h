// How fast this machine multiplies: the bound that the prefill is measured against.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace zym {

// Single-precision multiply-adds a second of nThreads threads that do nothing else, the best of
// several passes with each kind of multiplyChains(kernels).
double multiplyPeak(int nThreads, std::string_view kernels);

// Multiply-adds by one kind of instructions, in chains that do not wait for one another: each lane
// of each chain begins at 0, and x becomes x / 2 + 1 in every step.
struct MultiplyChains {
  const char* name;
  size_t nLanes;                // lanes of all chains
  size_t passSteps;             // that a pass of the measurement takes
  float (*run)(size_t nSteps);  // the sum over all lanes
};

// Those that kernels of this name (qwen35/simd/instruction_sets.h) multiply with: the widest of
// their instruction set and, beside instructions that may lower the clock, narrower ones. kernels:
// of those that this machine can run.
std::vector<MultiplyChains> multiplyChains(std::string_view kernels);

}  // namespace zym
