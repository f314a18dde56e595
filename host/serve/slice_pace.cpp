#include "host/serve/slice_pace.h"

#include <algorithm>

namespace zym {

namespace {

constexpr double kWaitSeconds = 0.25;

}  // namespace

size_t SlicePace::tokens(bool othersWrite) const {
  if (!othersWrite || tokenSeconds == 0) {
    return kLongest;
  }
  const double most = kWaitSeconds / tokenSeconds;
  return most >= static_cast<double>(kLongest) ? kLongest
                                               : std::max(kShortest, static_cast<size_t>(most));
}

void SlicePace::saw(size_t tokens, double seconds) {
  // A short slice reads every weight for few tokens and tells little of a long one.
  if (tokens >= kShortest) {
    tokenSeconds = seconds / static_cast<double>(tokens);
  }
}

}  // namespace zym
