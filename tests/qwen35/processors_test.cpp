#include "qwen35/processors.h"

#include <gtest/gtest.h>
#include <omp.h>
#include <sched.h>

#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::ScopedEnv;
using kel::test::TempDir;
using qwen35::coresOf;
using qwen35::processorsOf;
using qwen35::threadsFor;

// A machine made of files: what /proc/self/cgroup, /sys/fs/cgroup and /sys/devices/system/cpu show.
class FakeMachine {
 public:
  explicit FakeMachine(unsigned processors) {
    sources.allowed.resize(processors);
    std::iota(sources.allowed.begin(), sources.allowed.end(), 0u);
    sources.ownCgroups = folder.file("cgroup");
    sources.cgroupRoot = folder.file("fs");
    sources.cpuRoot = folder.file("cpu");
  }

  FakeMachine& file(const std::string& path, const std::string& text) {
    const std::filesystem::path whole = folder.file(path);
    std::filesystem::create_directories(whole.parent_path());
    std::ofstream(whole) << text;
    return *this;
  }
  FakeMachine& allow(std::vector<unsigned> processors) {
    sources.allowed = std::move(processors);
    return *this;
  }
  // Processors n and n + cores are the hyper-threads of core n.
  FakeMachine& hyperThreads(unsigned cores) {
    for (unsigned p = 0; p < 2 * cores; ++p) {
      const unsigned core = p % cores;
      file("cpu/cpu" + std::to_string(p) + "/topology/core_cpus_list",
           std::to_string(core) + "," + std::to_string(core + cores) + "\n");
    }
    return *this;
  }

  unsigned processors() const { return processorsOf(sources); }
  unsigned cores() const { return coresOf(sources); }

 private:
  TempDir folder;
  qwen35::ProcessorSources sources;
};

TEST(Processors, WithoutLimitsAllAllowedOnesCount) {
  EXPECT_EQ(6u, FakeMachine(6).processors());
  EXPECT_EQ(6u, FakeMachine(6).cores()) << "no topology: each is a core of its own";
}

TEST(Processors, NoneIsStillOne) {
  EXPECT_EQ(1u, FakeMachine(0).processors());
  EXPECT_EQ(1u, FakeMachine(0).cores());
}

TEST(Processors, HyperThreadsOfACoreCountOnce) {
  FakeMachine machine(8);
  machine.hyperThreads(4);
  EXPECT_EQ(8u, machine.processors());
  EXPECT_EQ(4u, machine.cores());
}

TEST(Processors, OnlyCoresOfAllowedProcessorsCount) {
  FakeMachine machine(0);
  machine.hyperThreads(4);
  EXPECT_EQ(2u, machine.allow({1, 2, 5, 6}).cores()) << "two cores with both hyper-threads";
  EXPECT_EQ(4u, machine.processors());
  EXPECT_EQ(3u, machine.allow({4, 6, 7}).cores()) << "the second hyper-threads alone";
}

TEST(Processors, OlderKernelsNameTheSiblingsInAnotherFile) {
  FakeMachine machine(4);
  for (const char* p : {"0", "1", "2", "3"}) {
    machine.file(std::string("cpu/cpu") + p + "/topology/thread_siblings_list",
                 *p < '2' ? "0-1\n" : "2-3\n");
  }
  EXPECT_EQ(2u, machine.cores());
}

TEST(Processors, AMalformedTopologyIsNone) {
  FakeMachine machine(2);
  machine.file("cpu/cpu0/topology/core_cpus_list", "both\n")
      .file("cpu/cpu1/topology/core_cpus_list", "");
  EXPECT_EQ(2u, machine.cores());
}

TEST(Processors, AQuotaLimitsBothCounts) {
  FakeMachine machine(8);
  machine.hyperThreads(4).file("cgroup", "0::/box\n").file("fs/box/cpu.max", "300000 100000\n");
  EXPECT_EQ(3u, machine.processors());
  EXPECT_EQ(3u, machine.cores());
}

TEST(Processors, AQuotaAboveTheProcessorsLimitsNothing) {
  FakeMachine machine(4);
  machine.file("cgroup", "0::/box\n").file("fs/box/cpu.max", "4000000 100000\n");
  EXPECT_EQ(4u, machine.processors());
}

TEST(Processors, PartOfAProcessorIsRoundedDownButNeverToNone) {
  FakeMachine machine(8);
  machine.file("cgroup", "0::/box\n").file("fs/box/cpu.max", "290000 100000\n");
  EXPECT_EQ(2u, machine.processors());
  machine.file("fs/box/cpu.max", "50000 100000\n");
  EXPECT_EQ(1u, machine.processors());
}

TEST(Processors, TheLeastQuotaOfAllGroupsAboveCounts) {
  FakeMachine machine(16);
  machine.file("cgroup", "0::/a/b/c\n")
      .file("fs/a/b/c/cpu.max", "800000 100000\n")
      .file("fs/a/cpu.max", "1000000 100000\n");
  EXPECT_EQ(8u, machine.processors());
  machine.file("fs/a/b/cpu.max", "500000 100000\n");
  EXPECT_EQ(5u, machine.processors());
  machine.file("fs/a/cpu.max", "400000 100000\n");
  EXPECT_EQ(4u, machine.processors());
  machine.file("fs/cpu.max", "6000 2000\n");
  EXPECT_EQ(3u, machine.processors()) << "the root, which in a container is the container's group";
}

TEST(Processors, AGroupThatIsNotMountedHereLeavesTheRoot) {
  FakeMachine machine(16);
  machine.file("cgroup", "0::/only/the/host/sees/this\n").file("fs/cpu.max", "200000 100000\n");
  EXPECT_EQ(2u, machine.processors());
}

TEST(Processors, MaxIsNoQuota) {
  FakeMachine machine(4);
  machine.file("cgroup", "0::/box\n").file("fs/box/cpu.max", "max 100000\n");
  EXPECT_EQ(4u, machine.processors());
}

TEST(Processors, TheUnifiedHierarchyMayLieBesideTheOlderOnes) {
  FakeMachine machine(4);
  machine.file("cgroup", "1:name=systemd:/box\n0::/box\n")
      .file("fs/unified/box/cpu.max", "200000 100000\n");
  EXPECT_EQ(2u, machine.processors());
}

TEST(Processors, TheOlderHierarchyHasItsQuotaInTwoFiles) {
  FakeMachine machine(8);
  machine.file("cgroup", "5:memory:/m\n4:cpu,cpuacct:/box/inner\n")
      .file("fs/cpu,cpuacct/box/inner/cpu.cfs_quota_us", "-1\n")
      .file("fs/cpu,cpuacct/box/inner/cpu.cfs_period_us", "100000\n")
      .file("fs/cpu,cpuacct/box/cpu.cfs_quota_us", "250000\n")
      .file("fs/cpu,cpuacct/box/cpu.cfs_period_us", "50000\n");
  EXPECT_EQ(5u, machine.processors());
  machine.file("fs/cpu/cpu.cfs_quota_us", "300000\n").file("fs/cpu/cpu.cfs_period_us", "100000\n");
  EXPECT_EQ(3u, machine.processors()) << "by the short name of the mount";
}

TEST(Processors, OnlyTheControllerOfProcessorTimeHasAQuota) {
  FakeMachine machine(8);
  machine.file("cgroup", "4:cpuset,cpuacct:/box\n")
      .file("fs/cpuset,cpuacct/box/cpu.cfs_quota_us", "100000\n")
      .file("fs/cpuset,cpuacct/box/cpu.cfs_period_us", "100000\n")
      .file("fs/cpu/box/cpu.cfs_quota_us", "100000\n")
      .file("fs/cpu/box/cpu.cfs_period_us", "100000\n");
  EXPECT_EQ(8u, machine.processors());
}

TEST(Processors, MalformedQuotasAreNone) {
  FakeMachine machine(4);
  machine.file("cgroup", "no colon\n1:cpu\n2:cpu:relative\n0::/box\n");
  for (const char* text : {"", "\n", "100000", "100000\n", "100000 ", "100000 0", "0 100000",
                           "-100000 100000", "100000/100000", "99999999999999999999 100000",
                           "100000 99999999999999999999", "one two", "100000 x"}) {
    machine.file("fs/box/cpu.max", text);
    EXPECT_EQ(4u, machine.processors()) << '"' << text << '"';
  }
}

// Run with OMP_PROC_BIND as well, where the mask of the main thread is one processor.
TEST(Processors, AreThoseThatOpenMpMayUse) {
  qwen35::ProcessorSources sources;
  sources.allowed.resize(static_cast<size_t>(omp_get_num_procs()));
  sources.ownCgroups = "/proc/self/cgroup";
  sources.cgroupRoot = "/sys/fs/cgroup";
  EXPECT_EQ(processorsOf(sources), qwen35::usableProcessors());
}

TEST(Threads, WithoutARequestOneForEachCore) {
  EXPECT_EQ(4u, threadsFor(nullptr, 8, 4));
}

TEST(Threads, ARequestCountsUpToTheProcessors) {
  EXPECT_EQ(1u, threadsFor("1", 8, 4));
  EXPECT_EQ(6u, threadsFor("6", 8, 4)) << "more than the cores: hyper-threads are wanted";
  EXPECT_EQ(8u, threadsFor("1000", 8, 4));
  EXPECT_EQ(8u, threadsFor("99999999999999999999", 8, 4));
}

TEST(Threads, TheFirstNumberOfAListCounts) {
  EXPECT_EQ(3u, threadsFor("3,2", 8, 4));
  EXPECT_EQ(3u, threadsFor(" 3 , 2", 8, 4));
}

TEST(Threads, WhatIsNoPositiveNumberIsNoRequest) {
  for (const char* text : {"", " ", "0", "-2", ",2", "two", "2x", "0,2"}) {
    EXPECT_EQ(4u, threadsFor(text, 8, 4)) << '"' << text << '"';
  }
}

TEST(Threads, TheEnvironmentIsAsked) {
  const ScopedEnv one("OMP_NUM_THREADS", "1");
  EXPECT_EQ(1u, qwen35::defaultThreads());
}

TEST(Threads, TheCallersAffinityCounts) {
  std::thread([] {
    cpu_set_t mask;
    ASSERT_EQ(0, sched_getaffinity(0, sizeof(mask), &mask));
    int first = 0;
    while (!CPU_ISSET(first, &mask)) {
      ++first;
    }
    CPU_ZERO(&mask);
    CPU_SET(first, &mask);
    ASSERT_EQ(0, sched_setaffinity(0, sizeof(mask), &mask));
    EXPECT_EQ(1u, qwen35::usableProcessors());
    EXPECT_EQ(1u, qwen35::usableCores());
    const ScopedEnv many("OMP_NUM_THREADS", "64");
    EXPECT_EQ(1u, qwen35::defaultThreads());
  }).join();
}

}  // namespace
