#include "host/serve/time_histogram.h"

#include <algorithm>
#include <numeric>

namespace zym {

void TimeHistogram::add(double seconds) {
  const auto* const bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
  if (bound != kBounds.end()) {
    ++counts[static_cast<size_t>(bound - kBounds.begin())];
  }
  ++total;
  sum += seconds;
}

uint64_t TimeHistogram::countUpTo(size_t i) const {
  return std::accumulate(counts.begin(), counts.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                         uint64_t{0});
}

}  // namespace zym
