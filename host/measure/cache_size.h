// The size of what lies between the processors and the memory.
#pragma once

#include <cstdint>
#include <string>

namespace zym {

// Bytes of all caches of the last level together: a large machine has several. cpuRoot: the folder
// /sys/devices/system/cpu. 0 where it tells of none.
uint64_t lastLevelCacheBytes(const std::string& cpuRoot = "/sys/devices/system/cpu");

// Bytes of this machine's memory; 0 if unknown.
uint64_t memoryBytes();

}  // namespace zym
