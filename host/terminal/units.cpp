#include "host/terminal/units.h"

#include <fmt/core.h>

#include <array>
#include <cmath>

namespace zym {

std::string bytesText(uint64_t bytes) {
  if (bytes < 1000) {
    return fmt::format("{} B", bytes);
  }
  constexpr std::array<const char*, 4> kUnits = {"kB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes) / 1000;
  size_t unit = 0;
  // 999.5 would round up to four digits.
  while (value >= 999.5 && unit + 1 < kUnits.size()) {
    value /= 1000;
    ++unit;
  }
  const int decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
  return fmt::format("{:.{}f} {}", value, decimals, kUnits[unit]);
}

std::string durationText(double seconds) {
  if (seconds < 59.95) {
    return fmt::format("{:.1f} s", seconds);
  }
  const auto whole = std::lround(seconds);
  if (whole < 3600) {
    return fmt::format("{} min {:02} s", whole / 60, whole % 60);
  }
  return fmt::format("{} h {:02} min", whole / 3600, whole / 60 % 60);
}

}  // namespace zym
