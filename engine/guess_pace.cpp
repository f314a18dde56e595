#include "engine/guess_pace.h"

namespace engine {

namespace {

constexpr double kNew = 0.2;           // weight of the last pass in the average
constexpr size_t kSkippedAtMost = 32;  // guesses in a row that are not looked at

void average(double& mean, double value) {
  mean = mean == 0 ? value : mean + kNew * (value - mean);
}

}  // namespace

bool GuessPace::isWorthIt() {
  const bool isUnknown = tokenSeconds == 0 || keptSeconds == 0;
  if (isUnknown || keptSeconds < tokenSeconds || ++skipped >= kSkippedAtMost) {
    skipped = 0;
    return true;
  }
  return false;
}

void GuessPace::sawToken(double seconds) {
  average(tokenSeconds, seconds);
}

void GuessPace::sawGuess(double seconds, size_t kept) {
  average(keptSeconds, seconds / static_cast<double>(kept));
}

}  // namespace engine
