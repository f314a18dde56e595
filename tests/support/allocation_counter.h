// Counts every operator new of a test program that links zym_test_allocations. Not for sanitizer
// builds, which bring an operator new of their own.
#pragma once

#include <atomic>
#include <cstddef>

namespace kel::test {

extern std::atomic<size_t> nAllocations;  // since the program's start, on all threads

}  // namespace kel::test
