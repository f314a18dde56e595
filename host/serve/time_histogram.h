// Times by their length, as collectors of metrics take them in: how many were at most so long.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zym {

class TimeHistogram {
 public:
  // In seconds, rising: from what an idle server takes to the patience of people.
  static constexpr std::array kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,   0.25, 0.5,
                                         1.0,   2.5,    5.0,   10.0, 30.0,  60.0, 120.0, 300.0};

  void add(double seconds);

  // Times of at most kBounds[i].
  uint64_t countUpTo(size_t i) const;
  uint64_t count() const { return total; }
  double seconds() const { return sum; }

 private:
  std::array<uint64_t, kBounds.size()> counts{};  // longer than the bound before
  uint64_t total = 0;
  double sum = 0;
};

}  // namespace zym
