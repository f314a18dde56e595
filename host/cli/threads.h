// How many threads the runtime library works with. It counts by the same code
// (qwen35/processors.h), so that the program need not ask it.
#pragma once

namespace zym {

// Takes effect for a runtime library that is loaded afterwards.
void setThreads(int threads);
// What was set, else OMP_NUM_THREADS, but no more than the processors that the process may use;
// without either, its physical cores.
int threadCount();

}  // namespace zym
