// Counts every operator new of a test program that links allocation_counter.cpp.
#pragma once

#include <cstddef>

namespace kel::testing {

extern size_t nAllocations;  // since the program's start; one thread

}  // namespace kel::testing
