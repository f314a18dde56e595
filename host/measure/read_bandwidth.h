// How fast this machine reads memory: the bound that decoding is measured against.
#pragma once

#include <cstddef>

namespace zym {

// Bytes a second of nThreads threads that each read their share of a buffer of bufferBytes, the
// best of several passes. The buffer should be far larger than the caches.
double readBandwidth(size_t bufferBytes, int nThreads);

}  // namespace zym
