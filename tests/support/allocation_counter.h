// Counts every operator new of a test program that links zym_test_allocations, and has some fail.
// Not for sanitizer builds, which bring an operator new of their own.
#pragma once

#include <atomic>
#include <cstddef>

namespace kel::test {

extern std::atomic<size_t> nAllocations;  // since the program's start, on all threads

// So many more of this thread succeed, all after them fail; negative: none does. Counts down.
extern thread_local long allocationsLeft;

}  // namespace kel::test
