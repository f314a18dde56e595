#include "tests/session/allocation_counter.h"

#include <cstdlib>
#include <new>

namespace kel::testing {

size_t nAllocations = 0;

}  // namespace kel::testing

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  ++kel::testing::nAllocations;
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
