// Memory of this process, as the system counts it.
#pragma once

#include <cstdint>

namespace zym {

struct MemoryUse {
  uint64_t resident = 0;  // all resident pages, bytes
  uint64_t file = 0;      // of these, pages of mapped files, which the system can drop
};

// Zeros when the system gives no figures.
MemoryUse memoryUse();

}  // namespace zym
