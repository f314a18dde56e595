#include "host/serve/queue_pace.h"

#include <algorithm>
#include <cmath>

namespace zym {

namespace {

// So few that the mean follows when callers come to ask for longer replies.
constexpr size_t kRemembered = 16;

}  // namespace

void QueuePace::saw(double seconds) {
  seen = std::min(seen + 1, kRemembered);
  meanSeconds += (seconds - meanSeconds) / static_cast<double>(seen);
}

std::chrono::seconds QueuePace::untilRoom() const {
  const double seconds = std::ceil(meanSeconds / parallel);
  return std::chrono::seconds(
      static_cast<int64_t>(std::clamp(seconds, 1.0, static_cast<double>(kLongest.count()))));
}

}  // namespace zym
