#include "qwen35/processors.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>

// Of the OpenMP runtime, where the program has one: this file serves programs without it, too.
extern "C" {
__attribute__((weak)) int omp_get_proc_bind();
__attribute__((weak)) int omp_get_num_places();
__attribute__((weak)) int omp_get_place_num_procs(int place);
__attribute__((weak)) void omp_get_place_proc_ids(int place, int* ids);
}

namespace qwen35 {
namespace {

// Of kernels that support more processors than any machine has today.
constexpr int kMostProcessors = 1 << 20;

struct FreeCpuSet {
  void operator()(cpu_set_t* set) const { CPU_FREE(set); }
};

// The mask of a large machine does not fit into a plain cpu_set_t, and its size cannot be asked
// for: the kernel answers EINVAL until the set is large enough.
std::vector<unsigned> affinityMask() {
  for (int most = CPU_SETSIZE; most <= kMostProcessors; most *= 2) {
    const std::unique_ptr<cpu_set_t, FreeCpuSet> set(CPU_ALLOC(static_cast<size_t>(most)));
    const size_t bytes = CPU_ALLOC_SIZE(static_cast<size_t>(most));
    if (set == nullptr) {
      break;
    }
    CPU_ZERO_S(bytes, set.get());
    if (sched_getaffinity(0, bytes, set.get()) == 0) {
      std::vector<unsigned> allowed;
      for (int processor = 0; processor < most; ++processor) {
        if (CPU_ISSET_S(static_cast<size_t>(processor), bytes, set.get())) {
          allowed.push_back(static_cast<unsigned>(processor));
        }
      }
      return allowed;
    }
    if (errno != EINVAL) {
      break;
    }
  }
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  std::vector<unsigned> all;
  for (long processor = 0; processor < online; ++processor) {
    all.push_back(static_cast<unsigned>(processor));
  }
  return all;
}

// With OMP_PROC_BIND the runtime gives each thread a place of its own, the first one to the main
// thread: its mask is then that place alone, and all places together are what the process may use.
std::vector<unsigned> boundProcessors() {
  std::vector<unsigned> allowed;
  if (omp_get_proc_bind == nullptr || omp_get_num_places == nullptr ||
      omp_get_place_num_procs == nullptr || omp_get_place_proc_ids == nullptr ||
      omp_get_proc_bind() == 0) {
    return allowed;
  }
  for (int place = 0; place < omp_get_num_places(); ++place) {
    std::vector<int> ids(static_cast<size_t>(std::max(omp_get_place_num_procs(place), 0)));
    omp_get_place_proc_ids(place, ids.data());
    allowed.insert(allowed.end(), ids.begin(), ids.end());
  }
  std::sort(allowed.begin(), allowed.end());
  allowed.erase(std::unique(allowed.begin(), allowed.end()), allowed.end());
  return allowed;
}

std::vector<unsigned> allowedProcessors() {
  std::vector<unsigned> bound = boundProcessors();
  return bound.empty() ? affinityMask() : bound;
}

ProcessorSources ownSources() {
  return {allowedProcessors(), "/proc/self/cgroup", "/sys/fs/cgroup", "/sys/devices/system/cpu"};
}

std::string firstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// Takes a positive number off the front of the text; nothing where there is none.
std::optional<int64_t> takePositive(std::string_view& text) {
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number < 1) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return number;
}

// The whole processors of a quota; UINT_MAX without one.
unsigned wholeProcessors(std::optional<int64_t> quota, std::optional<int64_t> period) {
  if (!quota || !period) {
    return UINT_MAX;
  }
  return static_cast<unsigned>(std::clamp<int64_t>(*quota / *period, 1, UINT_MAX));
}

// "QUOTA PERIOD" or "max PERIOD", in microseconds.
unsigned unifiedQuota(const std::string& folder) {
  const std::string line = firstLine(folder + "/cpu.max");
  std::string_view text(line);
  const auto quota = takePositive(text);
  if (!quota || text.substr(0, 1) != " ") {
    return UINT_MAX;
  }
  text.remove_prefix(1);
  return wholeProcessors(quota, takePositive(text));
}

// A quota of -1 is none.
unsigned legacyQuota(const std::string& folder) {
  const std::string quotaLine = firstLine(folder + "/cpu.cfs_quota_us");
  const std::string periodLine = firstLine(folder + "/cpu.cfs_period_us");
  std::string_view quota(quotaLine);
  std::string_view period(periodLine);
  return wholeProcessors(takePositive(quota), takePositive(period));
}

// The least quota of a group and all groups above it, the root of the hierarchy included: inside a
// container that is the container's own group, and the path may name folders that only the host
// sees.
unsigned leastQuota(const std::string& hierarchy, std::string group,
                    unsigned (*quotaOf)(const std::string& folder)) {
  unsigned least = quotaOf(hierarchy);
  while (!group.empty() && group != "/") {
    least = std::min(least, quotaOf(hierarchy + group));
    group.resize(std::min(group.rfind('/'), group.size()));
  }
  return least;
}

bool namesCpu(std::string_view controllers) {
  while (!controllers.empty()) {
    const size_t end = std::min(controllers.find(','), controllers.size());
    if (controllers.substr(0, end) == "cpu") {
      return true;
    }
    controllers.remove_prefix(std::min(end + 1, controllers.size()));
  }
  return false;
}

// Lines of "ID:CONTROLLERS:/GROUP". The unified hierarchy names no controllers, and lies one folder
// lower where the older hierarchies are mounted beside it.
unsigned quotaOf(const ProcessorSources& sources) {
  unsigned least = UINT_MAX;
  std::ifstream file(sources.ownCgroups);
  for (std::string line; std::getline(file, line);) {
    const size_t first = line.find(':');
    const size_t second = first == std::string::npos ? first : line.find(':', first + 1);
    if (second == std::string::npos || line.compare(second + 1, 1, "/") != 0) {
      continue;
    }
    const std::string controllers = line.substr(first + 1, second - first - 1);
    const std::string group = line.substr(second + 1);
    if (controllers.empty()) {
      least = std::min({least, leastQuota(sources.cgroupRoot, group, unifiedQuota),
                        leastQuota(sources.cgroupRoot + "/unified", group, unifiedQuota)});
    } else if (namesCpu(controllers)) {
      least = std::min({least, leastQuota(sources.cgroupRoot + "/cpu", group, legacyQuota),
                        leastQuota(sources.cgroupRoot + "/" + controllers, group, legacyQuota)});
    }
  }
  return least;
}

// The lowest processor of the core that this one belongs to; itself where the machine does not say.
unsigned coreOf(const std::string& cpuRoot, unsigned processor) {
  const std::string topology = cpuRoot + "/cpu" + std::to_string(processor) + "/topology/";
  for (const char* name : {"core_cpus_list", "thread_siblings_list"}) {
    const std::string list = firstLine(topology + name);
    unsigned lowest = 0;
    if (std::from_chars(list.data(), list.data() + list.size(), lowest).ec == std::errc()) {
      return lowest;
    }
  }
  return processor;
}

unsigned limited(size_t processors, const ProcessorSources& sources) {
  return static_cast<unsigned>(std::clamp<size_t>(processors, 1, quotaOf(sources)));
}

}  // namespace

unsigned processorsOf(const ProcessorSources& sources) {
  return limited(sources.allowed.size(), sources);
}

unsigned coresOf(const ProcessorSources& sources) {
  std::vector<unsigned> cores;
  for (const unsigned processor : sources.allowed) {
    cores.push_back(coreOf(sources.cpuRoot, processor));
  }
  std::sort(cores.begin(), cores.end());
  cores.erase(std::unique(cores.begin(), cores.end()), cores.end());
  return limited(cores.size(), sources);
}

unsigned threadsFor(const char* asked, unsigned processors, unsigned cores) noexcept {
  std::string_view text(asked == nullptr ? "" : asked);
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  unsigned threads = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), threads);
  const std::string_view rest(end, static_cast<size_t>(text.data() + text.size() - end));
  const bool isNumber = rest.empty() || std::string_view(", \t").find(rest[0]) != rest.npos;
  if (isNumber && error == std::errc::result_out_of_range) {
    return processors;
  }
  return isNumber && error == std::errc() && threads >= 1 ? std::min(threads, processors) : cores;
}

unsigned usableProcessors() noexcept {
  try {
    return processorsOf(ownSources());
  } catch (...) {
    return 1;
  }
}

unsigned usableCores() noexcept {
  try {
    return coresOf(ownSources());
  } catch (...) {
    return 1;
  }
}

unsigned defaultThreads() noexcept {
  return threadsFor(std::getenv("OMP_NUM_THREADS"), usableProcessors(), usableCores());
}

}  // namespace qwen35
