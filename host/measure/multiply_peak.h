// How fast this machine multiplies: the bound that the prefill is measured against.
#pragma once

namespace zym {

// Single-precision multiply-adds a second of nThreads threads that do nothing else, with the widest
// instructions that the runtime's kernels use here; the best of several passes.
double multiplyPeak(int nThreads);

}  // namespace zym
