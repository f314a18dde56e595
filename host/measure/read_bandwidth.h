// How fast this machine reads memory: the bound that decoding is measured against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zym {

// Bytes a second of nThreads threads that do nothing but read a buffer of about bufferBytes, each
// beginning with its own share, which it has written first (so that it lies in its own memory), and
// then helping the others. The best of several passes with each of the readers below. The buffer
// should be far larger than the caches. 0 without memory for it.
double readBandwidth(size_t bufferBytes, int nThreads);

// A buffer that no cache holds a notable part of, and that leaves most of the memory to others.
size_t bandwidthBufferBytes(uint64_t cacheBytes, uint64_t memoryBytes);

// Bytes that are read at once; a multiple of what every reader takes in a step.
inline constexpr size_t kReadChunk = size_t{8} * (120 * 1024 + 512);

// One way to read kReadChunk bytes, aligned to 64: by the widest loads, in one or more streams side
// by side, with prefetching.
struct ChunkReader {
  const char* name;
  uint64_t (*sum)(const uint8_t* chunk);  // of all 64-bit words, modulo 2^64
};

// Those that this processor can run; which one is fastest depends on its prefetchers.
const std::vector<ChunkReader>& chunkReaders();

}  // namespace zym
