// How many threads the runtime library works with. It counts by the same code
// (qwen35/processors.h), so that the program need not ask it.
#pragma once

namespace zym {

// Both take effect for a runtime library that is loaded afterwards: OpenMP reads OMP_NUM_THREADS
// then, and starts as many threads in every region that asks for no number of its own. Far more
// than there are processors would wait for one another.

// As many threads as asked for, but no more than the processors that the process may use; a line on
// standard error tells of that.
void setThreads(int threads);
// Lowers a number in OMP_NUM_THREADS that is above those processors to theirs. In silence: it may
// be meant for other programs.
void limitThreads();

// What was set, else OMP_NUM_THREADS, but no more than the processors that the process may use;
// without either, its physical cores.
int threadCount();

}  // namespace zym
