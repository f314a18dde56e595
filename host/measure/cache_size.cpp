#include "host/measure/cache_size.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>

namespace zym {
namespace {

namespace fs = std::filesystem;

std::string firstLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

struct Cache {
  int level = 0;
  uint64_t bytes = 0;
};

// Sizes are written as "32768K", levels as "3".
Cache readCache(const fs::path& folder) {
  Cache cache;
  std::ifstream(folder / "level") >> cache.level;
  char unit = 0;
  std::ifstream(folder / "size") >> cache.bytes >> unit;
  cache.bytes *= unit == 'K' ? 1024 : unit == 'M' ? 1024 * 1024 : 1;
  return cache;
}

}  // namespace

uint64_t lastLevelCacheBytes(const std::string& cpuRoot) {
  // Of each level, by the processors that share a cache.
  std::map<int, std::map<std::string, uint64_t>> caches;
  std::error_code unreadable;
  for (const fs::directory_entry& cpu : fs::directory_iterator(cpuRoot, unreadable)) {
    for (const fs::directory_entry& entry :
         fs::directory_iterator(cpu.path() / "cache", unreadable)) {
      const Cache cache = readCache(entry.path());
      if (cache.bytes > 0) {
        caches[cache.level][firstLine(entry.path() / "shared_cpu_list")] = cache.bytes;
      }
    }
  }
  uint64_t total = 0;
  if (!caches.empty()) {
    for (const auto& [sharers, bytes] : caches.rbegin()->second) {
      total += bytes;
    }
  }
  return total;
}

uint64_t memoryBytes() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageBytes = sysconf(_SC_PAGESIZE);
  return pages > 0 && pageBytes > 0
             ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageBytes)
             : 0;
}

}  // namespace zym
