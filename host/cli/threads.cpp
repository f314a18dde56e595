#include "host/cli/threads.h"

#include <dlfcn.h>
#include <sched.h>

#include <charconv>
#include <cstdlib>
#include <string>
#include <string_view>

namespace zym {

void setThreads(int threads) {
  setenv("OMP_NUM_THREADS", std::to_string(threads).c_str(), 1);
  // An OpenMP runtime that is here already, with a part of the program that uses it, has read the
  // variable before and has to be told.
  using SetNumThreads = void (*)(int);
  if (const auto tell =
          reinterpret_cast<SetNumThreads>(dlsym(RTLD_DEFAULT, "omp_set_num_threads"))) {
    tell(threads);
  }
}

int threadCount() {
  if (const char* asked = std::getenv("OMP_NUM_THREADS")) {
    const std::string_view text(asked);
    int threads = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), threads);
    if (result.ec == std::errc() && threads >= 1) {
      return threads;
    }
  }
  cpu_set_t set;
  CPU_ZERO(&set);
  return sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : 1;
}

}  // namespace zym
