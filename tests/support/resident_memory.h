// Memory that a process has in use, to be compared before and after.
#pragma once

#include <fstream>
#include <limits>
#include <string>

#include "tests/support/instrumented.h"

namespace kel::test {

// Of this process or of another one, by its number; -1 where the system does not say.
inline long residentKilobytes(const std::string& process = "self") {
  std::ifstream status("/proc/" + process + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) {
      return std::stol(line.substr(6));
    }
  }
  return -1;
}

// Sanitizers keep freed memory aside and books on what is touched, which is growth of their own.
constexpr long allowedGrowth(long kilobytes) {
  return kInstrumented ? std::numeric_limits<long>::max() : kilobytes;
}

}  // namespace kel::test
