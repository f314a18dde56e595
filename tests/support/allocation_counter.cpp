#include "tests/support/allocation_counter.h"

#include <cstdlib>
#include <new>

namespace kel::test {

std::atomic<size_t> nAllocations = 0;
thread_local long allocationsLeft = -1;

}  // namespace kel::test

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  ++kel::test::nAllocations;
  long& left = kel::test::allocationsLeft;
  if (left == 0) {
    return nullptr;
  }
  left -= left > 0 ? 1 : 0;
  return std::malloc(size);
}
void* operator new(size_t size) {
  if (void* memory = operator new(size, std::nothrow)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
