// How often the system had to map a page for the calling thread.
#pragma once

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>

namespace kel::test {

inline size_t pageBytes() {
  return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Those that needed no disk.
inline size_t pageFaults() {
  rusage usage{};
  if (getrusage(RUSAGE_THREAD, &usage) != 0) {
    throw std::runtime_error("getrusage");
  }
  return static_cast<size_t>(usage.ru_minflt);
}

// Whether pages are populated for writing when asked, which emulators and older systems do not do.
inline bool canPopulatePages() {
#ifdef MADV_POPULATE_WRITE
  void* page =
      mmap(nullptr, pageBytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) {
    throw std::runtime_error("mmap");
  }
  unsigned char resident = 0;
  const bool known = madvise(page, pageBytes(), MADV_POPULATE_WRITE) == 0 &&
                     mincore(page, pageBytes(), &resident) == 0 && (resident & 1) != 0;
  munmap(page, pageBytes());
  return known;
#else
  return false;
#endif
}

}  // namespace kel::test
