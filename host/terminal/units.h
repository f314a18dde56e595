// Numbers as people read them.
#pragma once

#include <cstdint>
#include <string>

namespace zym {

// "817 B", "35.7 MB", "2.61 GB": three digits, powers of 1000.
std::string bytesText(uint64_t bytes);
// "4.2 s", "1 min 05 s", "2 h 03 min".
std::string durationText(double seconds);

}  // namespace zym
