#include "host/measure/memory_use.h"

#include <fstream>
#include <limits>
#include <string>

namespace zym {

MemoryUse memoryUse() {
  MemoryUse use;
  std::ifstream in("/proc/self/status");
  std::string key;
  while (in >> key) {
    uint64_t kilobytes = 0;
    if (key == "VmRSS:" && in >> kilobytes) {
      use.resident = kilobytes * 1024;
    }
    if (key == "RssFile:" && in >> kilobytes) {
      use.file = kilobytes * 1024;
    }
    in.clear();
    in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  }
  return use;
}

}  // namespace zym
