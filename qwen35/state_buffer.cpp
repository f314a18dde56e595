#include "qwen35/state_buffer.h"

#include <sys/mman.h>

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

void StateBuffer::clear() {
  if (floats == nullptr) {
    return;
  }
  // Refused for memory that the process has locked.
  if (madvise(floats, count * sizeof(float), MADV_DONTNEED) != 0) {
    std::fill_n(floats, count, 0.0f);
  }
}

}  // namespace qwen35
