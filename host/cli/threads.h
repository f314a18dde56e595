// How many threads the runtime library works with.
#pragma once

namespace zym {

// Takes effect for a runtime library that is loaded afterwards.
void setThreads(int threads);
// What the runtime library will use: OMP_NUM_THREADS, else the processors of this process.
int threadCount();

}  // namespace zym
