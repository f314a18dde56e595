// A processor for each thread of a team that has as many threads as it may use processors.
//
// Systems move threads to where they expect less to do: beside another program, a thread of the
// team is moved to the processor of one that sleeps for a moment, and the two then share it. Where
// the team fills all processors, no place is better than one for each.
#pragma once

#include <sched.h>

#include <cstddef>

namespace qwen35 {

// The processors that the calling thread may use now; none where the system does not tell.
class ProcessorSet {
 public:
  static ProcessorSet ofThisThread();

  size_t size() const { return count; }

 private:
  friend class OwnProcessor;

  cpu_set_t set{};
  size_t count = 0;
};

// Keeps the calling thread on processor number `index`, from 0, of a set of as many processors as
// there are threads, and ends that with its own end. Does nothing for another number of threads,
// and for a thread that may not use just that set: whoever bound it knew why. Processors that
// someone else gives to the thread meanwhile stay given.
class OwnProcessor {
 public:
  OwnProcessor(const ProcessorSet& all, size_t index, size_t threads);
  OwnProcessor(const OwnProcessor&) = delete;
  OwnProcessor& operator=(const OwnProcessor&) = delete;
  ~OwnProcessor();

 private:
  ProcessorSet before;
  cpu_set_t own{};
  bool bound = false;
};

}  // namespace qwen35
