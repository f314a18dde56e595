// Whether guessing ahead is worth it on this machine and in this text.
#pragma once

#include <cstddef>

namespace engine {

// Learns from the time that passes take. It decides about speed alone: texts are the same.
class GuessPace {
 public:
  // Whether to look at a guess, where there is one. Now and then it says so against what it knows:
  // texts change, and so do machines.
  bool isWorthIt();

  void sawToken(double seconds);
  void sawGuess(double seconds, size_t kept);

 private:
  double tokenSeconds = 0;  // of a pass of one token; 0: not known
  double keptSeconds = 0;   // of a guess's pass, for each token that was kept
  size_t skipped = 0;
};

}  // namespace engine
