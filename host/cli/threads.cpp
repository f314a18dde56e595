#include "host/cli/threads.h"

#include <cstdlib>
#include <string>

#include "qwen35/processors.h"

namespace zym {

void setThreads(int threads) {
  setenv("OMP_NUM_THREADS", std::to_string(threads).c_str(), 1);
}

int threadCount() {
  return static_cast<int>(qwen35::defaultThreads());
}

}  // namespace zym
