// How many processors this process may use. The functions read /proc and /sys: call them where a
// model is set up, not for each pass. Any thread; nothing is thrown, and the answer is at least 1.
#pragma once

#include <string>
#include <vector>

namespace qwen35 {

// Logical processors that the affinity mask allows, never more than the whole processors of the CPU
// quota: a thread too many then waits for the next period of the quota and holds up all others.
unsigned usableProcessors() noexcept;

// As above, but the hyper-threads of one core count once: they share its vector units.
unsigned usableCores() noexcept;

// Threads when nobody says how many: OMP_NUM_THREADS, at most usableProcessors(); usableCores()
// where the variable is unset or no positive number.
unsigned defaultThreads() noexcept;

// What the answers above are made of.
struct ProcessorSources {
  std::vector<unsigned> allowed;  // processor numbers of the affinity mask
  std::string ownCgroups;         // the file /proc/self/cgroup
  std::string cgroupRoot;         // the folder /sys/fs/cgroup
  std::string cpuRoot;            // the folder /sys/devices/system/cpu
};

// What is missing or malformed sets no limit. These two may fail to allocate.
unsigned processorsOf(const ProcessorSources& sources);
unsigned coresOf(const ProcessorSources& sources);

// asked: the value of OMP_NUM_THREADS, of which the first number of a list "4,2" counts; may be
// null.
unsigned threadsFor(const char* asked, unsigned processors, unsigned cores) noexcept;

}  // namespace qwen35
