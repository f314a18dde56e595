#include "host/measure/read_bandwidth.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>

#include "host/measure/probe_team.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace zym {
namespace {

constexpr int kPasses = 3;  // with each reader
constexpr size_t kLine = 64;
// Prefetched ahead in each stream: what a core has to have under way to hide the memory's latency.
constexpr size_t kAhead = 2048;

// A stream's length is no whole number of pages: streams at the same offset of their pages would
// compete for the same sets of the L1.
template <size_t kStreams>
uint64_t sumWords(const uint8_t* chunk) {
  constexpr size_t kStretch = kReadChunk / kStreams;
  uint64_t sums[kStreams] = {};
  for (size_t i = 0; i < kStretch; i += kLine) {
    for (size_t s = 0; s < kStreams; ++s) {
      const uint8_t* at = chunk + s * kStretch + i;
      __builtin_prefetch(at + kAhead);
      uint64_t words[kLine / sizeof(uint64_t)];
      std::memcpy(words, at, kLine);
      for (const uint64_t word : words) {
        sums[s] += word;
      }
    }
  }
  uint64_t total = 0;
  for (const uint64_t sum : sums) {
    total += sum;
  }
  return total;
}

#if defined(__x86_64__)
template <size_t kStreams>
__attribute__((target("avx2"))) uint64_t sumAvx2(const uint8_t* chunk) {
  constexpr size_t kStretch = kReadChunk / kStreams;
  __m256i sums[kStreams];
  for (__m256i& sum : sums) {
    sum = _mm256_setzero_si256();
  }
  for (size_t i = 0; i < kStretch; i += kLine) {
#pragma GCC unroll 8
    for (size_t s = 0; s < kStreams; ++s) {
      const uint8_t* at = chunk + s * kStretch + i;
      __builtin_prefetch(at + kAhead);
      const auto* halves = reinterpret_cast<const __m256i*>(at);
      sums[s] = _mm256_add_epi64(
          sums[s], _mm256_add_epi64(_mm256_load_si256(halves), _mm256_load_si256(halves + 1)));
    }
  }
  for (size_t s = 1; s < kStreams; ++s) {
    sums[0] = _mm256_add_epi64(sums[0], sums[s]);
  }
  uint64_t words[4];
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(words), sums[0]);
  return words[0] + words[1] + words[2] + words[3];
}

template <size_t kStreams>
__attribute__((target("avx512f"))) uint64_t sumAvx512(const uint8_t* chunk) {
  constexpr size_t kStretch = kReadChunk / kStreams;
  __m512i sums[kStreams];
  for (__m512i& sum : sums) {
    sum = _mm512_setzero_si512();
  }
  for (size_t i = 0; i < kStretch; i += kLine) {
#pragma GCC unroll 8
    for (size_t s = 0; s < kStreams; ++s) {
      const uint8_t* at = chunk + s * kStretch + i;
      __builtin_prefetch(at + kAhead);
      sums[s] = _mm512_add_epi64(sums[s], _mm512_load_si512(at));
    }
  }
  for (size_t s = 1; s < kStreams; ++s) {
    sums[0] = _mm512_add_epi64(sums[0], sums[s]);
  }
  uint64_t words[8];
  _mm512_storeu_si512(words, sums[0]);
  uint64_t total = 0;
  for (const uint64_t word : words) {
    total += word;
  }
  return total;
}
#endif

std::vector<ChunkReader> supportedReaders() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f")) {
    return {{"avx512, 1 stream", sumAvx512<1>},
            {"avx512, 2 streams", sumAvx512<2>},
            {"avx512, 4 streams", sumAvx512<4>},
            {"avx512, 8 streams", sumAvx512<8>}};
  }
  if (__builtin_cpu_supports("avx2")) {
    return {{"avx2, 1 stream", sumAvx2<1>},
            {"avx2, 2 streams", sumAvx2<2>},
            {"avx2, 4 streams", sumAvx2<4>},
            {"avx2, 8 streams", sumAvx2<8>}};
  }
#endif
  return {{"1 stream", sumWords<1>},
          {"2 streams", sumWords<2>},
          {"4 streams", sumWords<4>},
          {"8 streams", sumWords<8>}};
}

// Pages that nobody has touched, huge ones if the system gives them.
class Buffer {
 public:
  explicit Buffer(size_t nBytes) : length(nBytes) {
    void* mapped =
        mmap(nullptr, nBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped != MAP_FAILED) {
      bytes = static_cast<uint8_t*>(mapped);
      madvise(mapped, nBytes, MADV_HUGEPAGE);
    }
  }
  ~Buffer() {
    if (bytes != nullptr) {
      munmap(bytes, length);
    }
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  uint8_t* data() const { return bytes; }

 private:
  uint8_t* bytes = nullptr;
  size_t length;
};

// The chunks of a thread's share that are still to be read in this pass.
struct alignas(kLine) Share {
  std::atomic<size_t> next{0};
};

}  // namespace

const std::vector<ChunkReader>& chunkReaders() {
  static const std::vector<ChunkReader> readers = supportedReaders();
  return readers;
}

size_t bandwidthBufferBytes(uint64_t cacheBytes, uint64_t memoryBytes) {
  constexpr uint64_t kLeast = uint64_t{1} << 30;
  return static_cast<size_t>(std::min(std::max(kLeast, 8 * cacheBytes), memoryBytes / 4));
}

double readBandwidth(size_t bufferBytes, int nThreads) {
  const auto threads = static_cast<size_t>(std::max(nThreads, 1));
  const size_t nChunks = std::max<size_t>(bufferBytes / kReadChunk / threads, 1);  // of a share
  const size_t shareBytes = nChunks * kReadChunk;
  const Buffer buffer(shareBytes * threads);
  if (buffer.data() == nullptr) {
    return 0;
  }
  ProbeTeam team(threads);
  team.run([&](size_t t) { std::memset(buffer.data() + t * shareBytes, 1, shareBytes); });

  const auto shares = std::make_unique<Share[]>(threads);
  std::atomic<uint64_t> total{0};  // used, so that the reads are not optimised away
  double best = 0;
  for (const ChunkReader& reader : chunkReaders()) {
    for (int pass = 0; pass < kPasses; ++pass) {
      for (size_t t = 0; t < threads; ++t) {
        shares[t].next = 0;
      }
      const double seconds = team.run([&](size_t t) {
        uint64_t sum = 0;
        for (size_t i = 0; i < threads; ++i) {
          const size_t owner = (t + i) % threads;
          const uint8_t* share = buffer.data() + owner * shareBytes;
          for (size_t c = shares[owner].next++; c < nChunks; c = shares[owner].next++) {
            sum += reader.sum(share + c * kReadChunk);
          }
        }
        total += sum;
      });
      if (seconds > 0) {
        best = std::max(best, static_cast<double>(shareBytes * threads) / seconds);
      }
    }
  }
  return total == 0 ? 0 : best;
}

}  // namespace zym
