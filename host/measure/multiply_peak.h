// How fast this machine multiplies: the bound that the prefill is measured against.
#pragma once

#include <cstddef>
#include <vector>

namespace zym {

// Single-precision multiply-adds a second of nThreads threads that do nothing else, the best of
// several passes with each of the kinds below: the widest instructions may lower the clock.
double multiplyPeak(int nThreads);

// Multiply-adds by one kind of instructions, in chains that do not wait for one another: each lane
// of each chain begins at 0, and x becomes x / 2 + 1 in every step.
struct MultiplyChains {
  const char* name;
  size_t nLanes;                // lanes of all chains
  float (*run)(size_t nSteps);  // the sum over all lanes
};

// Those that this processor can run.
const std::vector<MultiplyChains>& multiplyChains();

}  // namespace zym
