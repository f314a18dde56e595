#include "qwen35/state_buffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <new>

namespace qwen35 {

StateBuffer::StateBuffer(size_t nFloats) {
  if (nFloats == 0) {
    return;
  }
  if (nFloats > SIZE_MAX / sizeof(float)) {
    throw std::bad_alloc();
  }
  // Not calloc: it hands out recycled memory for all but the largest sizes, and clears that by
  // touching it.
  void* pages = mmap(nullptr, nFloats * sizeof(float), PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) {
    throw std::bad_alloc();
  }
  floats = static_cast<float*>(pages);
  count = nFloats;
}

StateBuffer::~StateBuffer() {
  if (floats != nullptr) {
    munmap(floats, count * sizeof(float));
  }
}

void StateBuffer::populate([[maybe_unused]] size_t begin, [[maybe_unused]] size_t n) {
#ifdef MADV_POPULATE_WRITE
  if (filled) {
    return;
  }
  static const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  uint8_t* bytes = reinterpret_cast<uint8_t*>(floats);  // begins with a page
  const size_t first = begin * sizeof(float) / page * page;
  madvise(bytes + first, (begin + n) * sizeof(float) - first, MADV_POPULATE_WRITE);
#endif
}

void StateBuffer::clear() {
  if (floats == nullptr) {
    return;
  }
  filled = false;
  // Refused for memory that the process has locked.
  if (madvise(floats, count * sizeof(float), MADV_DONTNEED) != 0) {
    fillWithZeros();
  }
}

void StateBuffer::fillWithZeros() {
  std::fill_n(floats, count, 0.0f);
  filled = true;
}

}  // namespace qwen35
