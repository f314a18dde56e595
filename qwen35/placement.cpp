#include "qwen35/placement.h"

namespace qwen35 {

namespace {

// The processor at place `index` of a set that has more of them.
int processorAt(const cpu_set_t& set, size_t index) {
  int processor = 0;
  for (size_t before = 0;; ++processor) {
    if (CPU_ISSET(static_cast<size_t>(processor), &set) && before++ == index) {
      return processor;
    }
  }
}

}  // namespace

ProcessorSet ProcessorSet::ofThisThread() {
  ProcessorSet result;
  // Fails on machines of more than CPU_SETSIZE (1,024) processors.
  if (sched_getaffinity(0, sizeof result.set, &result.set) == 0) {
    result.count = static_cast<size_t>(CPU_COUNT(&result.set));
  }
  return result;
}

OwnProcessor::OwnProcessor(const ProcessorSet& all, size_t index, size_t threads) {
  if (threads < 2 || all.count != threads || index >= threads) {
    return;
  }
  before = ProcessorSet::ofThisThread();
  if (before.count == 0 || !CPU_EQUAL(&before.set, &all.set)) {
    return;
  }
  CPU_SET(static_cast<size_t>(processorAt(all.set, index)), &own);
  bound = sched_setaffinity(0, sizeof own, &own) == 0;
}

OwnProcessor::~OwnProcessor() {
  if (!bound) {
    return;
  }
  const ProcessorSet current = ProcessorSet::ofThisThread();
  if (current.count != 0 && CPU_EQUAL(&current.set, &own)) {
    sched_setaffinity(0, sizeof before.set, &before.set);
  }
}

}  // namespace qwen35
